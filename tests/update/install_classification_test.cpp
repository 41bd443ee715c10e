#include "update/install_classification.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "tests/support/environment.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(InstallClassification, DecidesByTheFirstSignalThatApplies) {
  using enum InstallMode;
  const struct {
    const char *path, *markers;  ///< present ones: i installation, u uninstaller, a archive
    InstallMode mode;
    const char* reason;
    const char* developer_root = "";
  } cases[] = {
      {"D:/odd/zul_rip.exe", "ia", kInstalled, "install marker present"},
      {"D:/odd/zul_rip.exe", "ua", kInstalled, "installer uninstaller present"},
      {"c:/users/ANN/appdata/local/programs/qorva/qorva_gui.exe", "a", kInstalled,
       "standard per-user installer directory"},
      {"D:/src/build/qorva_gui.exe", "a", kArchive, "archive migration marker present", "D:/src"},
      {"D:/src/Build/qorva.exe", "", kUnknown, "developer tree or local build output", "d:/SRC"},
      // A folder whose name begins with the tree's name is not inside the tree.
      {"D:/src2/qorva.exe", "", kArchive, "product executable outside installer directory",
       "D:/src"},
      {"E:/stick/ZUL_RIP_GUI.exe", "", kArchive, "legacy archive executable name"},
      {"E:/x/qorva_updater.exe", "", kArchive, "product executable outside installer directory"},
      {"E:/stick/other.exe", "", kUnknown, "path does not match installer or archive signals"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    const std::string_view markers = c.markers;
    InstallSignals signals;
    signals.executable_path = c.path;
    signals.local_app_data = "C:/Users/Ann/AppData/Local";
    signals.developer_root = c.developer_root;
    signals.install_marker_present = markers.find('i') != markers.npos;
    signals.uninstaller_present = markers.find('u') != markers.npos;
    signals.archive_marker_present = markers.find('a') != markers.npos;
    const InstallClassification result = ClassifyInstallSignals(signals);
    EXPECT_EQ(result.mode, c.mode);
    EXPECT_EQ(result.reason, c.reason);
    EXPECT_EQ(result.is_updatable, c.mode != kArchive);
  }
}

TEST(InstallClassification, TakesTheSignalsFromDiskAndEnvironment) {
  const test::TempFolder folder;
  const test::ScopedEnvironment profile("LOCALAPPDATA", PathToUtf8(folder / "Profile"));
  const auto reason = [&](std::string_view relative) {
    return ClassifyInstallTarget(PathToUtf8(folder / relative)).reason;
  };
  EXPECT_EQ(reason("profile/programs/QORVA/qorva.exe"), "standard per-user installer directory");

  const char* const executable = "tree/app/qorva.exe";
  test::WriteFile(folder / "tree/CMakeLists.txt", "");
  test::WriteFile(folder / "tree/app/unins000.exe/a folder is no uninstaller", "");
  EXPECT_EQ(reason(executable), "product executable outside installer directory");
  test::WriteFile(folder / "tree/.git/HEAD", "");
  EXPECT_EQ(reason(executable), "developer tree or local build output");
  test::WriteFile(folder / "tree/app/qorva_archive_migration_required.json", "");
  EXPECT_EQ(reason(executable), "archive migration marker present");
  test::WriteFile(folder / "tree/app/qorva_installation.json", "");
  EXPECT_EQ(reason(executable), "install marker present");
}

}  // namespace
}  // namespace zul
