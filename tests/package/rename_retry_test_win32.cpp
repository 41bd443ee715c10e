// Windows only: on other systems an open file does not keep its folder from being renamed.

#include <gtest/gtest.h>

#include "package/extraction_directory.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using std::chrono::milliseconds;

TEST(RenameWithRetry, WaitsAtMostTwoSecondsForASharingViolation) {
  for (const int closed_at : {3, 40, 1000}) {
    const test::TempFolder folder;
    std::error_code code;
    std::error_code ignored;
    fs::File held = fs::CreateNewFile(folder / "from", fs::NewFileAccess::kWrite, code);
    ASSERT_TRUE(held.is_open());
    int sleeps = 0;
    const RetrySleep sleep = [&](milliseconds duration) {
      EXPECT_EQ(duration, milliseconds(50));
      if (++sleeps == closed_at) static_cast<void>(held.Close(ignored));
    };
    EXPECT_EQ(RenameWithRetry(folder / "from", folder / "to", code, sleep), closed_at <= 40);
    EXPECT_EQ(sleeps, std::min(closed_at, 40));
    static_cast<void>(held.Close(ignored));
    EXPECT_FALSE(RenameWithRetry(folder / "missing", folder / "to", code,
                                 [](milliseconds) { ADD_FAILURE() << "not transient"; }));
  }
}

TEST(CommitExtractionDirectory, KeepsItsCallerAliveWhileARenameWaits) {
  const test::TempFolder folder;
  test::WriteFile(folder / "stage/file", "x");
  std::error_code code;
  std::string error;
  fs::File held = fs::OpenForRead(folder / "stage/file", code);
  ASSERT_TRUE(held.is_open());
  int calls = 0;
  EXPECT_TRUE(CommitExtractionDirectory(folder / "stage", folder / "out", &error, [&] {
    if (++calls == 3) static_cast<void>(held.Close(code));
  })) << error;
}

}  // namespace
}  // namespace zul
