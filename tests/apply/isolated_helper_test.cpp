// What tests/rig/test_self_replace.py cannot bring about.

#include "apply/isolated_helper.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using std::chrono::hours;
using test::Exists;
using test::WriteFile;

/// The system's temporary folder for the length of one test.
class ScopedTempDirectory {
 public:
  explicit ScopedTempDirectory(const fs::Path& path)
      : first_(test::kOnWindows ? "TMP" : "TMPDIR", PathToUtf8(path)),
        second_("TEMP", PathToUtf8(path)) {}

 private:
  const test::ScopedEnvironment first_;
  const test::ScopedEnvironment second_;
};

TEST(IsolatedHelperTest, CopiesEverythingOrFails) {
  const test::TempFolder app;
  const test::SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  const ScopedTempDirectory small_temp(volume.path());
  const fs::Path updater = app / "qorva_updater.exe";
  const std::string too_big(5 << 20, 'x');
  WriteFile(updater, "the updater");
  for (const auto& [path, context] :
       {std::pair{app / "z.dll", "helper runtime DLL staging copy failed: source='"},
        {updater, "helper staging copy failed: source='"}}) {
    WriteFile(path, too_big);
    IsolatedHelper prepared{"left", "over", {"x"}};
    std::string error;
    EXPECT_FALSE(PrepareIsolatedHelper(updater, &prepared, &error));
    EXPECT_TRUE(error.starts_with(context + PathToUtf8(path))) << error;
    EXPECT_TRUE(prepared.helper.empty() && prepared.copied_libraries.empty());
  }
}

TEST(IsolatedHelperTest, RemovesFoldersOfAWeekAgoAndNothingThroughALink) {
  const test::TempFolder folder;
  const fs::Path temp = folder / "temp";
  const ScopedTempDirectory scoped_temp(temp);
  const struct {
    const char* name;
    hours age;
    bool stays;
  } entries[] = {{"zul_updater_launch_1_1", hours(7 * 24 - 1), true},
                 {"zul_updater_launch_2_1", hours(7 * 24), false},
                 {"zul_updater_launch_3_1", hours(365 * 24), false}};
  WriteFile(folder / "precious" / "file", "");
  for (const auto& entry : entries) {
    const fs::Path file = temp / entry.name / "sub" / "zul_updater.exe";
    WriteFile(file, "");
    test::MakeReadOnly(file);
    test::MakeOlder(temp / entry.name, entry.age);
  }
  const fs::Path linked = temp / "zul_updater_launch_5_1";
  if (test::MakeLink(folder / "precious", linked)) {
    ASSERT_TRUE(test::MakeLink(folder / "precious", temp / "zul_updater_launch_3_1" / "link"));
    test::MakeOlder(folder / "precious", hours(8 * 24));
    test::MakeOlder(temp / "zul_updater_launch_3_1", hours(365 * 24));
  }
  RemoveStaleHelperFolders();
  for (const auto& entry : entries) {
    EXPECT_EQ(Exists(temp / entry.name / "sub" / "zul_updater.exe"), entry.stays) << entry.name;
  }
  EXPECT_TRUE(Exists(folder / "precious" / "file"));
  test::RemoveHostTree(folder.path());
}

}  // namespace
}  // namespace zul
