// Elsewhere nothing that this user may make keeps a folder from being renamed.

#include <gtest/gtest.h>

#include "package/extraction_directory.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(RenameWithRetry, WaitsTwoSecondsForAHeldFile) {
  using std::chrono::milliseconds;
  for (const int let_go_at : {3, 40, 1000}) {
    const test::TempFolder folder;
    std::error_code code;
    fs::File held = fs::CreateNewFile(folder / "from", fs::NewFileAccess::kWrite, code);
    ASSERT_TRUE(held.is_open());
    int sleeps = 0;
    EXPECT_EQ(RenameWithRetry(folder / "from", folder / "to", code,
                              [&](milliseconds duration) {
                                EXPECT_EQ(duration, milliseconds(50));
                                std::error_code ignored;
                                if (++sleeps == let_go_at) (void)held.Close(ignored);
                              }),
              let_go_at <= 40);
    EXPECT_EQ(sleeps, std::min(let_go_at, 40));
    (void)held.Close(code);
    // What will not pass is not waited for.
    EXPECT_FALSE(RenameWithRetry(folder / "missing", folder / "to", code,
                                 [](milliseconds) { ADD_FAILURE() << "slept"; }));
  }
}

}  // namespace
}  // namespace zul
