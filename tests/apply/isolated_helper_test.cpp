#include "apply/isolated_helper.h"

#include <gtest/gtest.h>

#include "core/file_layer.h"
#include "core/process_environment.h"
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

class IsolatedHelperTest : public testing::Test {
 protected:
  const test::TempFolder folder_;
  const fs::Path temp_ = folder_ / "temp";
  const fs::Path app_ = folder_ / "app \xC5\xBElu\xC5\xA5";
  const fs::Path updater_ = app_ / "qorva_updater.exe";
  const ScopedTempDirectory scoped_temp_{temp_};
  IsolatedHelper prepared_{"left", "over", {"x"}};
  std::string error_;
};

TEST_F(IsolatedHelperTest, CopiesTheUpdaterAndTheLibrariesThatAreThere) {
  WriteFile(updater_, "the updater");
  for (const char* name : {"vcruntime140.dll", "z.dll", "winhttp.dll", "qorva_engine.dll"}) {
    WriteFile(app_ / name, name);
  }
  WriteFile(app_ / "tiff.dll" / "not a file", "");
  WriteFile(app_ / "plugins" / "zstd.dll", "");

  ASSERT_TRUE(PrepareIsolatedHelper(updater_, prepared_, &error_)) << error_;
  EXPECT_EQ(prepared_.copied_libraries, (std::vector<std::string>{"z.dll", "vcruntime140.dll"}));
  EXPECT_EQ(prepared_.helper, prepared_.runtime_dir / "zul_updater.exe");
  EXPECT_EQ(prepared_.runtime_dir.parent_path(), temp_);
  const std::string name = PathToUtf8(prepared_.runtime_dir.filename());
  EXPECT_TRUE(name.starts_with("zul_updater_launch_")) << name;
  EXPECT_TRUE(name.ends_with("_" + std::to_string(CurrentProcessId()))) << name;
  EXPECT_EQ(test::ListTree(prepared_.runtime_dir),
            "qorva_updater.exe\nvcruntime140.dll\nz.dll\nzul_updater.exe\n");
  EXPECT_EQ(test::ReadFile(prepared_.helper), "the updater");

  IsolatedHelper second;
  ASSERT_TRUE(PrepareIsolatedHelper(updater_, second, nullptr));
  EXPECT_NE(second.runtime_dir, prepared_.runtime_dir);
}

TEST_F(IsolatedHelperTest, SaysWhatItCouldNotPrepare) {
  const auto expect_failure = [this](const std::string& beginning) {
    prepared_ = {"left", "over", {"x"}};
    EXPECT_FALSE(PrepareIsolatedHelper(updater_, prepared_, &error_));
    EXPECT_TRUE(error_.starts_with(beginning)) << error_;
    EXPECT_TRUE(prepared_.helper.empty() && prepared_.runtime_dir.empty());
    EXPECT_TRUE(prepared_.copied_libraries.empty());
  };
  expect_failure("Updater helper is missing: " + PathToUtf8(updater_));
  EXPECT_FALSE(Exists(temp_)) << "nothing is made for an updater that is not there";

  WriteFile(updater_, "the updater");
  WriteFile(folder_ / "file", "");
  {
    const ScopedTempDirectory no_folder(folder_ / "file");
    expect_failure("Cannot create temporary updater helper directory.");
  }
  const test::SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  const ScopedTempDirectory small_temp(volume.path());
  const std::string too_big(5 << 20, 'x');
  WriteFile(app_ / "z.dll", too_big);
  expect_failure("helper runtime DLL staging copy failed: source='" + PathToUtf8(app_ / "z.dll"));
  WriteFile(updater_, too_big);
  expect_failure("helper staging copy failed: source='" + PathToUtf8(updater_));
}

TEST_F(IsolatedHelperTest, RemovesHelperFoldersOfMoreThanAWeekAgo) {
  const struct {
    const char* name;
    hours age;
    bool is_folder;
    bool stays;
  } entries[] = {
      {"zul_updater_launch_1_1", hours(6 * 24), true, true},
      {"zul_updater_launch_2_1", hours(8 * 24), true, false},
      {"zul_updater_launch_3_1", hours(7 * 24), true, false},
      {"zul_updater_launch_", hours(365 * 24), true, false},
      {"zul_updater_launch_4_1", hours(8 * 24), false, true},
      {"zul_updater_launc", hours(8 * 24), true, true},
      {"my zul_updater_launch_5_1", hours(8 * 24), true, true},
      {"qorva_updater_6", hours(8 * 24), true, true},
      {"zul_updater_launch_7_1", -hours(24), true, true},
  };
  for (const auto& entry : entries) {
    const fs::Path path = temp_ / entry.name;
    WriteFile(entry.is_folder ? path / "sub" / "zul_updater.exe" : path, "");
    if (entry.is_folder) test::MakeReadOnly(path / "sub" / "zul_updater.exe");
    test::MakeOlder(path, entry.age);
  }
  WriteFile(updater_, "the updater");  // preparing a helper is what removes
  ASSERT_TRUE(PrepareIsolatedHelper(updater_, prepared_, &error_)) << error_;
  for (const auto& entry : entries)
    EXPECT_EQ(Exists(temp_ / entry.name), entry.stays) << entry.name;
  EXPECT_TRUE(Exists(prepared_.helper));

  const ScopedTempDirectory missing(folder_ / "missing");
  RemoveStaleHelperFolders();
}

TEST_F(IsolatedHelperTest, NeverRemovesThroughALink) {
  WriteFile(folder_ / "precious" / "file", "");
  WriteFile(temp_ / "zul_updater_launch_1_1" / "zul_updater.exe", "");
  if (!test::MakeLink(folder_ / "precious", temp_ / "zul_updater_launch_1_1" / "link")) {
    GTEST_SKIP() << "no links here";
  }
  ASSERT_TRUE(test::MakeLink(folder_ / "precious", temp_ / "zul_updater_launch_2_1"));
  test::MakeOlder(folder_ / "precious", hours(8 * 24));
  test::MakeOlder(temp_ / "zul_updater_launch_1_1", hours(8 * 24));
  RemoveStaleHelperFolders();
  EXPECT_TRUE(Exists(folder_ / "precious" / "file"));
  EXPECT_FALSE(Exists(temp_ / "zul_updater_launch_1_1" / "zul_updater.exe"));
  test::RemoveHostTree(folder_.path());
}

}  // namespace
}  // namespace zul
