#include "core/app_paths.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::ScopedEnvironment;

// A folder that cannot be made shows in the settings' tests.
TEST(AppPaths, WithoutAHomeTheTemporaryFolderServes) {
  if (test::kOnWindows) GTEST_SKIP() << "the roaming folder cannot be taken away here";
  const test::TempFolder folder;
  const std::string temp = PathToUtf8(folder.path());
  const ScopedEnvironment home("QORVA_CONFIG_HOME", "");  // counts as unset
  const ScopedEnvironment roaming("HOME", std::nullopt);
  const ScopedEnvironment tmp("TMPDIR", temp + "///");
  const AppPathResult result = ResolveAppDataDirectory("APP");
  EXPECT_EQ(result.path, temp + "/APP");
  EXPECT_TRUE(result.ready && result.used_fallback);
  EXPECT_EQ(result.error, "0x80004005");
}

}  // namespace
}  // namespace zul
