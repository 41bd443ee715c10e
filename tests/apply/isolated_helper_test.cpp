// Copies that fail, and stale folders with links. The other cases are in
// tests/rig/test_self_replace.py.

#include "apply/isolated_helper.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::WriteFile;

TEST(IsolatedHelper, CopiesEveryFileOrFails) {
  const test::TempFolder app;
  const test::SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  const test::ScopedEnvironment temp(test::kTempVariable, PathToUtf8(volume.path()));
  const fs::Path updater = app / "qorva_updater.exe";
  WriteFile(updater, "the updater");
  for (const auto& [path, context] :
       {std::pair{app / "z.dll", "helper runtime DLL staging copy failed: source='"},
        {updater, "helper staging copy failed: source='"}}) {
    WriteFile(path, std::string(5 << 20, 'x'));  // more than the volume holds
    IsolatedHelper prepared{"left", "over", {"x"}};
    std::string error;
    EXPECT_FALSE(PrepareIsolatedHelper(updater, &prepared, &error));
    EXPECT_TRUE(error.starts_with(context + PathToUtf8(path))) << error;
    EXPECT_TRUE(prepared.helper.empty() && prepared.copied_libraries.empty());
  }
}

TEST(IsolatedHelper, RemovesFoldersThatAreAWeekOldAndNothingThroughALink) {
  const test::TempFolder folder;
  const fs::Path temp = folder / "temp";
  const test::ScopedEnvironment scoped(test::kTempVariable, PathToUtf8(temp));
  const std::chrono::hours week(7 * 24);
  WriteFile(folder / "precious/file", "");
  const fs::Path young = temp / "zul_updater_launch_1_1", stale = temp / "zul_updater_launch_2_1";
  for (const fs::Path& helper_folder : {young, stale}) {
    WriteFile(helper_folder / "sub/zul_updater.exe", "");
    test::MakeReadOnly(helper_folder / "sub/zul_updater.exe");
  }
  if (test::MakeLink(folder / "precious", temp / "zul_updater_launch_3_1")) {
    ASSERT_TRUE(test::MakeLink(folder / "precious", stale / "link"));
    test::MakeOlder(folder / "precious", 2 * week);
  }
  // The age is not exact: the system and its file times use clocks of different resolution.
  test::MakeOlder(young, week - std::chrono::minutes(1));
  test::MakeOlder(stale, week + std::chrono::minutes(1));
  RemoveStaleHelperFolders();
  EXPECT_TRUE(test::Exists(young / "sub/zul_updater.exe"));
  EXPECT_FALSE(test::Exists(stale / "sub/zul_updater.exe"));
  EXPECT_TRUE(test::Exists(folder / "precious/file"));
  test::RemoveHostTree(folder.path());
}

}  // namespace
}  // namespace zul
