#include <gtest/gtest.h>

#include <string>

#include "core/text.h"
#include "request/update_request.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::TempFolder;
using test::WriteFile;

std::string Validate(const std::string& target, const std::string& restart) {
  UpdateRequest request;
  request.target_dir = target;
  request.restart_exe = restart;
  std::string error;
  const bool ok = ValidateUpdatePaths(request, &error);
  EXPECT_EQ(ValidateUpdatePaths(request, nullptr), ok);
  EXPECT_EQ(ok, error.empty());
  return error;
}

// Texts decide alone, on any system.
TEST(UpdatePaths, RefusesByTextInAFixedOrder) {
  const std::string not_absolute = "Update target directory must be an absolute path.";
  const std::string wrong_name =
      "Restart executable must be qorva_gui.exe, qorva.exe, zul_rip_gui.exe, or zul_rip.exe.";
  struct Case {
    std::string target, restart, error;
  };
  const Case cases[] = {
      {"", "", "Update target directory path is not valid UTF-8."},
      {"C:\\\xff", "\xff", "Update target directory path is not valid UTF-8."},
      {"x", "C:\\\xed\xa0\x80", "Restart executable path is not valid UTF-8."},
      {"x", "", "Restart executable path is not valid UTF-8."},
      {"x", "x", not_absolute},
      {"C:", "x", not_absolute},
      {"C:foo", "x", not_absolute},
      {"C:\\", "x", "Restart executable path must be absolute."},
      {"C:\\", "C:\\x.exe", "Update target directory cannot be a filesystem root."},
      {"\\\\server", "C:\\x.exe", "Update target directory cannot be a filesystem root."},
      {"\\\\server\\share\\app", "C:\\x.exe", wrong_name},
      {"C:\\app", "C:\\qorva.exe\\", wrong_name},
      {"C:\\app", "C:\\app\\qorva.exe.", wrong_name},
      {"C:\\app", "C:\\app\\myqorva.exe", wrong_name},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Validate(c.target, c.restart), c.error) << c.target << " | " << c.restart;
  }
}

TEST(UpdatePaths, AsksTheDiskInAFixedOrder) {
  const TempFolder folder;
  WriteFile(folder / "app/QORVA_gui.exe", "");
  WriteFile(folder / "app/sub/qorva.exe", "");
  WriteFile(folder / "plain", "");
  std::error_code ec;
  ASSERT_TRUE(fs::CreateDirectories(folder / "app" / "qorva.exe", ec));
  const std::string root = PathToGenericUtf8(folder.path());
  struct Case {
    std::string target, restart, error;
  };
  const Case cases[] = {
      {"/app", "/app/QORVA_gui.exe", ""},
      {"/app/", "/app/QORVA_gui.exe", ""},
      {"/app/sub/..", "/./app/sub/../QORVA_gui.exe", ""},
      {"/none", "/none/qorva.exe", "Update target directory must exist and be a directory."},
      {"/plain", "/app/qorva.exe", "Update target directory must exist and be a directory."},
      {"/app", "/app/zul_rip.exe", "Restart executable must exist and be a regular file."},
      {"/app", "/app/qorva.exe", "Restart executable must exist and be a regular file."},
      {"/app", "/app/sub/qorva.exe",
       "Restart executable must be directly inside the update target directory."},
      {"/app/sub", "/app/QORVA_gui.exe",
       "Restart executable must be directly inside the update target directory."},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Validate(root + c.target, root + c.restart), c.error) << c.target << c.restart;
  }
}

TEST(RestartTarget, MapsLegacyNamesToAnExistingCurrentName) {
  const TempFolder folder;
  const std::string target = PathToUtf8(folder.path());
  WriteFile(folder / "qorva_gui.exe", "");
  std::error_code ec;
  ASSERT_TRUE(fs::CreateDirectories(folder / "qorva.exe", ec));
  struct Case {
    std::string restart, expected;
  };
  const Case cases[] = {
      {"X:\\old\\ZUL_Rip_GUI.exe", PathToUtf8(folder / "qorva_gui.exe")},
      {"X:\\old\\zul_rip.exe", "X:\\old\\zul_rip.exe"},  // the current name is a folder
      {"X:\\old\\qorva_gui.exe", "X:\\old\\qorva_gui.exe"},
      {"X:\\old\\other.exe", "X:\\old\\other.exe"},
  };
  for (const Case& c : cases) EXPECT_EQ(ResolveRestartTarget(c.restart, target), c.expected);
  EXPECT_EQ(ResolveRestartTarget("zul_rip_gui.exe", target + "/none"), "zul_rip_gui.exe");
}

TEST(UpdaterHelper, PrefersTheCurrentNameSpelledExactly) {
  const TempFolder folder;
  WriteFile(folder / "qorva.exe", "");
  const std::string restart = PathToUtf8(folder / "qorva.exe");
  fs::Path helper;
  std::string error;
  const auto resolve = [&] {
    helper.clear();
    error.clear();
    static_cast<void>(ResolveUpdaterHelper(restart, helper, &error));
    return error.empty() ? PathToUtf8(helper.filename()) : error;
  };
  const std::string missing = "Updater helper must be named qorva_updater.exe or zul_updater.exe.";
  EXPECT_EQ(resolve(), missing);
  WriteFile(folder / "Zul_updater.exe", "");
  EXPECT_EQ(resolve(), missing);
  std::error_code ec;
  fs::Remove(folder / "Zul_updater.exe", ec);
  WriteFile(folder / "zul_updater.exe", "");
  EXPECT_EQ(resolve(), "zul_updater.exe");
  ASSERT_TRUE(fs::CreateDirectories(folder / "qorva_updater.exe", ec));
  EXPECT_EQ(resolve(), "Updater helper must exist and be a regular file.");
  fs::Remove(folder / "qorva_updater.exe", ec);
  WriteFile(folder / "qorva_updater.exe", "");
  EXPECT_EQ(resolve(), "qorva_updater.exe");
  EXPECT_EQ(helper, folder / "qorva_updater.exe");

  EXPECT_FALSE(ResolveUpdaterHelper(PathToUtf8(folder / "other.exe"), helper, &error));
  EXPECT_EQ(error, "Restart executable path is invalid.");
  EXPECT_THROW(static_cast<void>(
                   ResolveUpdaterHelper(PathToUtf8(folder / "none/qorva.exe"), helper, nullptr)),
               std::filesystem::filesystem_error);
}

}  // namespace
}  // namespace zul
