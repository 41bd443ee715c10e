#include "request/application_owner.h"

#include <gtest/gtest.h>

#include "core/process_environment.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(ApplicationOwner, NeedsTheNameAndWhereKnownTheFolder) {
  const test::TempFolder folder;
  test::WriteFile(folder / "app/qorva.exe", "");
  test::WriteFile(folder / "copy/qorva.exe", "");
  const fs::Path target = folder / "app";
  const struct {
    std::optional<fs::Path> image;
    const char* name;
    bool expected;
  } cases[] = {
      {target / "Qorva_GUI.exe", "", true},
      {folder / "copy/../app/qorva.exe", "", true},
      {folder / "copy/qorva.exe", "qorva.exe", false},
      {target / "sub/qorva.exe", "qorva.exe", false},
      {target / "qorva_updater.exe", "qorva.exe", false},  // the image decides, not the list
      {std::nullopt, "ZUL_RIP.exe", true},
      {std::nullopt, "qorva", false},
      {std::nullopt, "", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsApplicationOwner({1, c.image, c.name}, target), c.expected)
        << c.image.value_or(c.name);
  }
}

TEST(ApplicationOwner, ReadsTheImagePathOfARunningProcess) {
  const std::optional<fs::Path> image = ProcessImagePath(CurrentProcessId());
  ASSERT_TRUE(image);
  EXPECT_EQ(*image, CurrentExecutablePath(32768));
  EXPECT_FALSE(ProcessImagePath(0));
}

}  // namespace
}  // namespace zul
