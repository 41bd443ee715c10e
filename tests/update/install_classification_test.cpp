#include "update/install_classification.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(InstallClassification, TheFirstSignalThatSpeaksDecides) {
  using enum InstallMode;
  const struct {
    const char *path, *markers;  ///< i installation, u uninstaller, a archive
    InstallMode mode;
    const char* reason;
    const char* developer_root = "";
  } cases[] = {
      {"D:/odd/zul_rip.exe", "ia", kInstalled, "install marker present"},
      {"D:/odd/zul_rip.exe", "u", kInstalled, "installer uninstaller present"},
      {"c:/users/ANN/appdata/local/programs/qorva/qorva_gui.exe", "", kInstalled,
       "standard per-user installer directory"},
      {"D:/src/build/qorva_gui.exe", "a", kArchive, "archive migration marker present", "D:/src"},
      {"D:/src/Build/qorva.exe", "", kUnknown, "developer tree or local build output", "d:/SRC"},
      // A name that begins alike is not inside.
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

TEST(InstallClassification, SignalsComeFromTheDisk) {
  const test::TempFolder folder;
  const auto gather = [&](std::string_view relative) {
    return GatherInstallSignals(PathToUtf8(folder / relative));
  };
  test::WriteFile(folder / "tree/CMakeLists.txt", "");
  test::WriteFile(folder / "tree/app/qorva_installation.json", "{}");
  test::WriteFile(folder / "tree/app/unins000.exe/not a file.txt", "");
  EXPECT_EQ(gather("tree/app/qorva.exe").developer_root, "") << "a tree needs both signs";

  test::WriteFile(folder / "tree/.git/HEAD", "");
  const InstallSignals signals = gather("tree/app/qorva.exe");
  EXPECT_EQ(signals.developer_root, PathToUtf8(folder / "tree"));
  EXPECT_TRUE(signals.install_marker_present);
  EXPECT_FALSE(signals.uninstaller_present) << "a folder of that name is no uninstaller";
}

}  // namespace
}  // namespace zul
