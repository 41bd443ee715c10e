#include "request/application_owner.h"

#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(IsApplicationOwner, ComparesTheNameAndTheFolderWhenItIsKnown) {
  const test::TempFolder folder;
  test::WriteFile(folder / "app/qorva.exe", "");
  const fs::Path target = folder / "app";
  const struct {
    std::optional<fs::Path> image;
    const char* name;
    bool expected;
  } cases[] = {
      {target / "Qorva_GUI.exe", "", true},
      {folder / "app/../app/qorva.exe", "", true},
      {folder / "app2/qorva.exe", "qorva.exe", false},
      {target / "qorva_updater.exe", "qorva.exe", false},  // the image decides, not the list
      {std::nullopt, "ZUL_RIP.exe", true},
      {std::nullopt, "qorva", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsApplicationOwner({1, c.image, c.name}, target), c.expected)
        << c.image.value_or(c.name);
  }
}

}  // namespace
}  // namespace zul
