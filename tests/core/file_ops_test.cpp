#include "core/file_ops.h"

#include <gtest/gtest.h>

#include "core/system_error.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::ListTree;
using test::ReadFile;
using test::TempFolder;
using test::WriteFile;

TEST(PublishNewFile, PublishesACompleteFileOrChangesNothing) {
  const std::string move = "Cannot atomically publish new file: ";
  const struct {
    const char* target;
    std::string contents;
    bool create_parent;
    FileOpStatus status = kFileOpOk;
    std::string message = {};  ///< before the system's text
  } cases[] = {
      {"empty", "", false},
      {"a/b/large ž", std::string(3000000, 'x'), true},
      {"existing", "other", true, kFileOpTargetExists, move},
      {"folder", "other", false, kFileOpTargetExists, move},
      {"missing/new", "x", false, kFileOpBadPath,
       "Cannot create unique temp file for atomic write: "},
      {"existing/new", "x", true, kFileOpParentNotCreated, "Cannot create parent directory: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target);
    const TempFolder folder;
    WriteFile(folder / "existing", "old");
    WriteFile(folder / "folder/file", "x");
    const std::string before = ListTree(folder.path());
    const FileOpResult result =
        PublishNewFile(folder / c.target, c.contents, {c.create_parent, c.create_parent});
    EXPECT_EQ(result.ok, c.status == kFileOpOk);
    EXPECT_EQ(result.status, c.status) << result.message;
    EXPECT_EQ(result.path, PathToUtf8(folder / c.target));
    EXPECT_EQ(result.temp_path.starts_with(result.path + ".tmp."), c.message == move);
    EXPECT_EQ(ReadFile(folder / "existing"), "old");
    if (result.ok) {
      EXPECT_EQ(result.message, "");
      EXPECT_TRUE(ReadFile(folder / c.target) == c.contents);
      EXPECT_EQ(ListTree(folder.path()).find(".tmp."), std::string::npos);
    } else {
      EXPECT_EQ(result.message, c.message + SystemErrorText(SystemError(result.system_error)));
      EXPECT_EQ(ListTree(folder.path()), before);
    }
  }
}

TEST(PublishNewFile, LeavesNothingOnAFullVolume) {
  const test::SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  const FileOpResult result =
      PublishNewFile(volume.path() / "file", std::string(std::size_t{8} << 20, 'x'), {});
  EXPECT_EQ(result.status, kFileOpDiskFull);
  EXPECT_TRUE(result.message.starts_with("Cannot write temp file for atomic write: "))
      << result.message;
  EXPECT_EQ(ListTree(volume.path()), "");
}

TEST(ExclusiveFile, RemainsOnlyWhenReleasedAndNeverOpensAnExistingFile) {
  const TempFolder folder;
  const std::string path = PathToUtf8(folder / "ž");
  std::string error;
  {
    ExclusiveFile file(path);
    ASSERT_EQ(file.create(&error), 0) << error;
    EXPECT_EQ(file.create(&error), 2);
    EXPECT_EQ(error, "exclusive file creation was already attempted");
    EXPECT_TRUE(file.write("ab", 2, &error) && file.write(nullptr, 0, &error)) << error;
    EXPECT_FALSE(file.write(nullptr, 1, &error));
    EXPECT_EQ(error, "exclusive file write buffer is null");
    EXPECT_TRUE(file.flush(&error) && file.close(&error) && file.close(&error)) << error;
    EXPECT_FALSE(file.write(nullptr, 0, &error) || file.flush(&error));
    EXPECT_EQ(error, "exclusive file is not open");
  }
  EXPECT_FALSE(test::Exists(folder / "ž"));
  {
    ExclusiveFile file(path);
    EXPECT_TRUE(file.create(&error) == 0 && file.write("ab", 2, &error)) << error;
    EXPECT_TRUE(file.write("cd", 2, &error)) << error;
    file.release();
  }
  EXPECT_EQ(ExclusiveFile(path).create(&error), 1);
  EXPECT_EQ(error, "");
  EXPECT_EQ(ReadFile(folder / "ž"), "abcd");
  EXPECT_EQ(ExclusiveFile("\xff\xfe").create(&error), 2);
  EXPECT_NE(error, "");
}

}  // namespace
}  // namespace zul
