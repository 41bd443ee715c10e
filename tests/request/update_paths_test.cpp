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

/// A target and a restart executable that get one message; empty for a pair that may be used.
struct Case {
  std::string error;
  std::vector<std::pair<std::string, std::string>> pairs;
};

// Texts decide alone, on any system.
TEST(UpdatePaths, RefusesByTextInAFixedOrder) {
  const Case cases[] = {
      {"Update target directory path is not valid UTF-8.", {{"", ""}, {"C:\\\xff", "\xff"}}},
      {"Restart executable path is not valid UTF-8.", {{"x", "C:\\\xed\xa0\x80"}, {"x", ""}}},
      {"Update target directory must be an absolute path.",
       {{"x", "x"}, {"C:", "x"}, {"C:foo", "x"}}},
      {"Restart executable path must be absolute.", {{"C:\\", "x"}}},
      {"Update target directory cannot be a filesystem root.",
       {{"C:\\", "C:\\x.exe"}, {"\\\\server", "C:\\x.exe"}}},
      {"Restart executable must be qorva_gui.exe, qorva.exe, zul_rip_gui.exe, or zul_rip.exe.",
       {{"\\\\server\\share\\app", "C:\\x.exe"},
        {"C:\\app", "C:\\qorva.exe\\"},
        {"C:\\app", "C:\\app\\qorva.exe."},
        {"C:\\app", "C:\\app\\myqorva.exe"}}},
  };
  for (const Case& c : cases) {
    for (const auto& [target, restart] : c.pairs) {
      EXPECT_EQ(Validate(target, restart), c.error) << target << " | " << restart;
    }
  }
}

TEST(UpdatePaths, AsksTheDiskInAFixedOrder) {
  const TempFolder folder;
  for (const char* file : {"app/QORVA_gui.exe", "app/sub/qorva.exe", "app/qorva.exe/x", "plain"}) {
    WriteFile(folder / file, "");
  }
  const Case cases[] = {
      {"",
       {{"/app", "/app/QORVA_gui.exe"},
        {"/app/", "/app/QORVA_gui.exe"},
        {"/app/sub/..", "/./app/sub/../QORVA_gui.exe"}}},
      {"Update target directory must exist and be a directory.",
       {{"/none", "/none/qorva.exe"}, {"/plain", "/app/qorva.exe"}}},
      {"Restart executable must exist and be a regular file.",
       {{"/app", "/app/zul_rip.exe"}, {"/app", "/app/qorva.exe"}}},
      {"Restart executable must be directly inside the update target directory.",
       {{"/app", "/app/sub/qorva.exe"}, {"/app/sub", "/app/QORVA_gui.exe"}}},
  };
  const std::string root = PathToGenericUtf8(folder.path());
  for (const Case& c : cases) {
    for (const auto& [target, restart] : c.pairs) {
      EXPECT_EQ(Validate(root + target, root + restart), c.error) << target << " | " << restart;
    }
  }
}

TEST(RestartTarget, MapsLegacyNamesToAnExistingCurrentName) {
  const TempFolder folder;
  WriteFile(folder / "qorva_gui.exe", "");
  WriteFile(folder / "qorva.exe/a folder", "");
  const std::string target = PathToUtf8(folder.path());
  EXPECT_EQ(ResolveRestartTarget("X:\\old\\ZUL_Rip_GUI.exe", target),
            PathToUtf8(folder / "qorva_gui.exe"));
  for (const char* kept : {"X:\\old\\zul_rip.exe", "X:\\old\\qorva_gui.exe", "X:\\other.exe"}) {
    EXPECT_EQ(ResolveRestartTarget(kept, target), kept);
  }
  EXPECT_EQ(ResolveRestartTarget("zul_rip_gui.exe", target + "/none"), "zul_rip_gui.exe");
}

TEST(UpdaterHelper, PrefersTheCurrentNameSpelledExactly) {
  const std::string missing = "Updater helper must be named qorva_updater.exe or zul_updater.exe.";
  const struct {
    std::vector<const char*> files;
    std::string found;  ///< the helper's name or the message
  } cases[] = {{{}, missing},
               {{"Zul_updater.exe"}, missing},
               {{"zul_updater.exe"}, "zul_updater.exe"},
               {{"zul_updater.exe", "qorva_updater.exe"}, "qorva_updater.exe"},
               {{"zul_updater.exe", "qorva_updater.exe/a folder"},
                "Updater helper must exist and be a regular file."}};
  fs::Path helper;
  std::string error;
  for (const auto& c : cases) {
    const TempFolder folder;
    WriteFile(folder / "qorva.exe", "");
    for (const char* file : c.files) WriteFile(folder / file, "");
    const bool found = ResolveUpdaterHelper(PathToUtf8(folder / "qorva.exe"), helper, &error);
    EXPECT_EQ(found ? PathToUtf8(helper.lexically_relative(folder.path())) : error, c.found);
  }
  const TempFolder folder;
  EXPECT_FALSE(ResolveUpdaterHelper(PathToUtf8(folder / "other.exe"), helper, &error));
  EXPECT_EQ(error, "Restart executable path is invalid.");
  EXPECT_THROW(static_cast<void>(
                   ResolveUpdaterHelper(PathToUtf8(folder / "none/qorva.exe"), helper, nullptr)),
               std::filesystem::filesystem_error);
}

}  // namespace
}  // namespace zul
