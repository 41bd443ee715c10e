// Links can be made by a test on this side only.
#include <gtest/gtest.h>

#include <filesystem>

#include "core/text.h"
#include "request/update_request.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(UpdatePathsWithLinks, FollowsThemAndComparesTheRealPlaces) {
  const test::TempFolder folder;
  test::WriteFile(folder / "app/qorva.exe", "");
  test::WriteFile(folder / "elsewhere/qorva.exe", "");
  test::WriteFile(folder / "elsewhere/real_updater.exe", "");
  std::filesystem::create_directory_symlink(folder / "app", folder / "link");
  std::filesystem::create_symlink(folder / "elsewhere/qorva.exe", folder / "app/qorva_gui.exe");
  std::filesystem::create_symlink(folder / "none", folder / "dangling");
  std::filesystem::create_symlink(folder / "elsewhere/real_updater.exe",
                                  folder / "app/qorva_updater.exe");
  struct Case {
    const char *target, *restart, *error;
  };
  const Case cases[] = {
      {"link", "app/qorva.exe", ""},
      {"app", "link/qorva.exe", ""},
      {"app", "app/qorva_gui.exe",
       "Restart executable must be directly inside the update target directory."},
      {"dangling", "app/qorva.exe", "Update target directory must exist and be a directory."},
  };
  for (const Case& c : cases) {
    UpdateRequest request;
    request.target_dir = PathToUtf8(folder / c.target);
    request.restart_exe = PathToUtf8(folder / c.restart);
    std::string error;
    EXPECT_EQ(ValidateUpdatePaths(request, &error), error.empty());
    EXPECT_EQ(error, c.error) << c.target << " " << c.restart;
  }
  fs::Path helper;
  std::string error;
  EXPECT_FALSE(ResolveUpdaterHelper(PathToUtf8(folder / "app/qorva.exe"), helper, &error));
  EXPECT_EQ(error, "Updater helper must be next to the restart executable.");
}

}  // namespace
}  // namespace zul
