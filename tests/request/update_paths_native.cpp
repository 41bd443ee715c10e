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
  for (const char* file : {"app/qorva.exe", "away/qorva.exe", "away/real_updater.exe"}) {
    test::WriteFile(folder / file, "");
  }
  for (const auto& [link, target] : {std::pair{"link", "app"},
                                     {"app/qorva_gui.exe", "away/qorva.exe"},
                                     {"app/qorva_updater.exe", "away/real_updater.exe"},
                                     {"dangling", "none"}}) {
    std::filesystem::create_symlink(folder / target, folder / link);
  }
  const char* const cases[][3] = {
      {"link", "app/qorva.exe", ""},
      {"app", "link/qorva.exe", ""},
      {"app", "app/qorva_gui.exe",
       "Restart executable must be directly inside the update target directory."},
      {"dangling", "app/qorva.exe", "Update target directory must exist and be a directory."}};
  std::string error;
  for (const auto& [target, restart, expected] : cases) {
    UpdateRequest request;
    request.target_dir = PathToUtf8(folder / target);
    request.restart_exe = PathToUtf8(folder / restart);
    error.clear();
    EXPECT_EQ(ValidateUpdatePaths(request, &error), error.empty());
    EXPECT_EQ(error, expected) << target << " " << restart;
  }
  fs::Path helper;
  EXPECT_FALSE(ResolveUpdaterHelper(PathToUtf8(folder / "app/qorva.exe"), helper, &error));
  EXPECT_EQ(error, "Updater helper must be next to the restart executable.");
}

}  // namespace
}  // namespace zul
