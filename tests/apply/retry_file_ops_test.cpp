#include "apply/retry_file_ops.h"

#include <gtest/gtest.h>

#include "core/process_environment.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::TempFolder;
using test::WriteFile;

const RetryPolicy kNoWait{.sleep = [](std::chrono::milliseconds) { ADD_FAILURE() << "waited"; }};

TEST(RetryFileOps, NeverRetryAFailureThatIsNotALock) {
  const TempFolder folder;
  WriteFile(folder / "file", "old");
  WriteFile(folder / "full/inside", "kept");
  std::error_code ec;
  ASSERT_TRUE(fs::CreateDirectories(folder / "empty", ec));
  const std::string before = test::ListTree(folder.path());
  for (const bool copies : {true, false}) {
    const auto operation = [&](const fs::Path& source, const fs::Path& target, std::string* error) {
      return copies ? RetryCopyFile(source, target, "ctx", error, kNoWait)
                    : RetryReplaceFile(source, target, "ctx", error, kNoWait);
    };
    std::string error;
    EXPECT_FALSE(operation(folder / "none", folder / "file", &error));
    EXPECT_NE(error.find("reason=missing_path, code=2,"), std::string::npos) << error;
    EXPECT_FALSE(operation(folder / "file", folder / "no/t", &error));
    EXPECT_NE(error.find("reason=missing_path, code="), std::string::npos) << error;
    EXPECT_EQ(error.find("attempts="), std::string::npos) << error;
  }
  EXPECT_FALSE(RetryCopyFile(folder / "file", folder / "empty", "ctx", nullptr, kNoWait));
  EXPECT_FALSE(RetryRemoveFile(folder / "full", "ctx", nullptr, kNoWait));
  EXPECT_TRUE(RetryRemoveFile(folder / "no/folder", "ctx", nullptr, kNoWait));
  EXPECT_EQ(test::ListTree(folder.path()), before);
  EXPECT_EQ(test::ReadFile(folder / "file"), "old");
}

TEST(RetryFileOps, SkipTemporaryNamesThatAreTaken) {
  const TempFolder folder;
  const fs::Path source = folder / "source", target = folder / "target";
  WriteFile(source, "new");
  WriteFile(target, "old");
  const auto left_over = "target.zul_update_tmp_" + std::to_string(CurrentProcessId()) + "_1_";
  for (int i = 0; i < 31; ++i) WriteFile(folder / (left_over + std::to_string(i)), "theirs");
  EXPECT_TRUE(RetryReplaceFile(source, target, "ctx", nullptr, kNoWait));
  EXPECT_EQ(test::ReadFile(target), "new");
  EXPECT_EQ(test::ReadFile(folder / (left_over + "30")), "theirs");

  WriteFile(folder / (left_over + "31"), "theirs");
  WriteFile(source, "newer");
  std::string error;
  EXPECT_FALSE(RetryReplaceFile(source, target, "ctx", &error, kNoWait));
  EXPECT_EQ(error, FormatFileFailure("ctx", source, target,
                                     std::make_error_code(std::errc::file_exists), 1));
  EXPECT_EQ(test::ReadFile(target), "new");
}

}  // namespace
}  // namespace zul
