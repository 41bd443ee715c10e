#include "update/install_classification.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

struct Case {
  const char* name;
  InstallSignals signals;
  InstallMode mode;
  const char* reason;
};

InstallSignals At(std::string_view path, std::string_view developer_root = "") {
  InstallSignals signals;
  signals.executable_path = path;
  signals.local_app_data = "C:/Users/Ann/AppData/Local";
  signals.developer_root = developer_root;
  return signals;
}

InstallSignals With(InstallSignals signals, bool InstallSignals::*marker) {
  signals.*marker = true;
  return signals;
}

TEST(InstallClassification, TheFirstSignalThatSpeaksDecides) {
  const InstallMode installed = InstallMode::kInstalled;
  const InstallMode archive = InstallMode::kArchive;
  const InstallMode unknown = InstallMode::kUnknown;
  const Case cases[] = {
      {"a marker beats everything",
       With(With(At("D:/odd/zul_rip.exe"), &InstallSignals::install_marker_present),
            &InstallSignals::archive_marker_present),
       installed, "install marker present"},
      {"an uninstaller makes an odd folder an installation",
       With(At("D:/odd/zul_rip.exe"), &InstallSignals::uninstaller_present), installed,
       "installer uninstaller present"},
      {"the standard folder alone is enough, in any case",
       At("c:/users/ANN/appdata/local/programs/qorva/qorva_gui.exe"), installed,
       "standard per-user installer directory"},
      {"an archive marker counts in a source tree",
       With(At("D:/src/build/qorva_gui.exe", "D:/src"), &InstallSignals::archive_marker_present),
       archive, "archive migration marker present"},
      {"a build output may update", At("D:/src/Build/qorva_gui.exe", "d:/SRC"), unknown,
       "developer tree or local build output"},
      {"a name that begins alike is not inside", At("D:/src2/qorva_gui.exe", "D:/src"), archive,
       "product executable outside installer directory"},
      {"a legacy name", At("E:/stick/ZUL_RIP_GUI.exe"), archive, "legacy archive executable name"},
      {"a current name on a stick", At("E:/stick/qorva_updater.exe"), archive,
       "product executable outside installer directory"},
      {"somebody else's program", At("E:/stick/other.exe"), unknown,
       "path does not match installer or archive signals"},
      {"no path at all", At(""), unknown, "path does not match installer or archive signals"},
  };
  for (const Case& c : cases) {
    const InstallClassification result = ClassifyInstallSignals(c.signals);
    EXPECT_EQ(result.mode, c.mode) << c.name;
    EXPECT_EQ(result.reason, c.reason) << c.name;
    EXPECT_EQ(result.is_archive, c.mode == archive) << c.name;
    EXPECT_EQ(result.is_updatable, c.mode != archive) << c.name;
  }

  InstallSignals unset = At("C:/Users/Ann/AppData/Local/Programs/QORVA/qorva.exe");
  unset.local_app_data.clear();
  EXPECT_EQ(ClassifyInstallSignals(unset).mode, archive) << "without LOCALAPPDATA";
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
  EXPECT_FALSE(signals.archive_marker_present);
}

}  // namespace
}  // namespace zul
