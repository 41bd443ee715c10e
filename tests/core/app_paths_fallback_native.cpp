// The fallback needs a system without a roaming folder, which only this side can be made into.
#include <gtest/gtest.h>
#include <unistd.h>

#include "core/app_paths.h"
#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(AppPathsFallback, IsTheTemporaryFolderAndThenTheCurrentOne) {
  const test::TempFolder folder;
  const test::ScopedEnvironment home("QORVA_CONFIG_HOME", std::nullopt);
  const test::ScopedEnvironment roaming("HOME", std::nullopt);
  const std::string temp = PathToUtf8(folder.path());
  {
    const test::ScopedEnvironment tmp("TMPDIR", temp + "///");
    const AppPathResult result = ResolveAppDataDirectory("APP");
    EXPECT_EQ(result.path, temp + "/APP");
    EXPECT_TRUE(result.ready);
    EXPECT_TRUE(result.used_fallback);
    EXPECT_EQ(result.error, "0x80004005");
  }
  const test::ScopedEnvironment tmp("TMPDIR", "/");
  std::error_code ec;
  const fs::Path before = fs::CurrentDirectory(ec);
  ASSERT_EQ(::chdir(temp.c_str()), 0);
  const AppPathResult result = ResolveAppDataDirectory("HERE");
  ASSERT_EQ(::chdir(before.c_str()), 0);
  EXPECT_EQ(result.path, "./HERE");
  EXPECT_TRUE(test::Exists(folder / "HERE"));
}

}  // namespace
}  // namespace zul
