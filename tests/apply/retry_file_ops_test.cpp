#include "apply/retry_file_ops.h"

#include <gtest/gtest.h>

#include "core/process_environment.h"
#include "core/system_error.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::ReadFile;
using test::TempFolder;
using test::WriteFile;

/// Counts the waits; none takes time.
struct NoSleep {
  int waits = 0;
  RetryPolicy policy{8, std::chrono::milliseconds(200),
                     [this](std::chrono::milliseconds) { ++waits; }};
};

TEST(RetryFileOpsTest, FormatsFailures) {
  const std::error_code missing = SystemError(2);
  const std::error_code exists = std::make_error_code(std::errc::file_exists);
  const std::string missing_text = ", message='" + SystemErrorText(missing) + "'";
  const std::string exists_text = ", message='" + SystemErrorText(exists) + "'";
  EXPECT_EQ(FormatFileFailure("ctx", "from", "to", missing, 1),
            "ctx: source='from', target='to', reason=missing_path, code=2" + missing_text);
  EXPECT_EQ(FormatFileFailure("ctx", {}, "to", exists, 8),
            "ctx: target='to', reason=filesystem_error, code=17" + exists_text + ", attempts=8");
  // Generic code 2 is no system error 2.
  EXPECT_NE(FormatFileFailure("ctx", {}, {}, std::make_error_code(std::errc(2)), 2)
                .find("ctx: reason=filesystem_error, code=2,"),
            std::string::npos);
}

TEST(RetryFileOpsTest, CopiesAndReplaces) {
  TempFolder folder;
  const std::string contents(2'500'000, 'n');
  WriteFile(folder / "source", contents);
  for (const bool replace : {false, true}) {
    const auto operation = replace ? &RetryReplaceFile : &RetryCopyFile;
    for (const bool target_exists : {false, true}) {
      const fs::Path target = folder / ("target" + std::to_string(replace * 2 + target_exists));
      if (target_exists) WriteFile(target, "old");
      std::string error;
      EXPECT_TRUE(operation(folder / "source", target, "ctx", &error, {})) << error;
      EXPECT_EQ(ReadFile(target), contents);
    }
  }
  EXPECT_EQ(ReadFile(folder / "source"), contents);
  EXPECT_EQ(test::ListTree(folder.path()), "source\ntarget0\ntarget1\ntarget2\ntarget3\n");
}

TEST(RetryFileOpsTest, GivesUpAtOnceOnWhatIsNoLock) {
  TempFolder folder;
  WriteFile(folder / "file", "old");
  WriteFile(folder / "full/inside", "kept");
  const std::string before = test::ListTree(folder.path());
  NoSleep clock;
  std::string error;

  EXPECT_FALSE(RetryCopyFile(folder / "none", folder / "file", "ctx", &error, clock.policy));
  EXPECT_NE(error.find("reason=missing_path, code=2,"), std::string::npos) << error;
  EXPECT_FALSE(RetryReplaceFile(folder / "none", folder / "file", "ctx", &error, clock.policy));
  EXPECT_NE(error.find("reason=missing_path, code=2,"), std::string::npos) << error;
  EXPECT_FALSE(RetryReplaceFile(folder / "file", folder / "no/t", "ctx", &error, clock.policy));
  EXPECT_NE(error.find("reason=missing_path"), std::string::npos) << error;
  EXPECT_FALSE(RetryCopyFile(folder / "file", folder / "full", "ctx", &error, clock.policy));
  EXPECT_EQ(error.find("attempts="), std::string::npos) << error;
  EXPECT_FALSE(RetryRemoveFile(folder / "full", "ctx", &error, clock.policy));
  EXPECT_EQ(error.find("attempts="), std::string::npos) << error;
  EXPECT_FALSE(RetryReplaceFile(folder / "none", folder / "file", "ctx", nullptr, clock.policy));

  EXPECT_EQ(clock.waits, 0);
  EXPECT_EQ(test::ListTree(folder.path()), before);
  EXPECT_EQ(ReadFile(folder / "file"), "old");
}

TEST(RetryFileOpsTest, RemovesFilesAndToleratesMissingOnes) {
  TempFolder folder;
  WriteFile(folder / "file", "x");
  NoSleep clock;
  EXPECT_TRUE(RetryRemoveFile(folder / "file", "ctx", nullptr, clock.policy));
  EXPECT_TRUE(RetryRemoveFile(folder / "file", "ctx", nullptr, clock.policy));
  EXPECT_TRUE(RetryRemoveFile(folder / "no/folder", "ctx", nullptr, clock.policy));
  EXPECT_EQ(clock.waits, 0);
  EXPECT_EQ(test::ListTree(folder.path()), "");
}

TEST(RetryFileOpsTest, StepsPastLeftOverTemporaries) {
  TempFolder folder;
  WriteFile(folder / "source", "new");
  WriteFile(folder / "target", "old");
  const auto left_over = [&](int suffix) {
    return folder / ("target.zul_update_tmp_" + std::to_string(CurrentProcessId()) + "_1_" +
                     std::to_string(suffix));
  };
  for (int suffix = 0; suffix < 31; ++suffix) WriteFile(left_over(suffix), "left over");
  EXPECT_TRUE(RetryReplaceFile(folder / "source", folder / "target", "ctx", nullptr));
  EXPECT_EQ(ReadFile(folder / "target"), "new");
  EXPECT_EQ(ReadFile(left_over(30)), "left over");

  WriteFile(left_over(31), "left over");
  WriteFile(folder / "source", "newer");
  NoSleep clock;
  std::string error;
  EXPECT_FALSE(RetryReplaceFile(folder / "source", folder / "target", "ctx", &error, clock.policy));
  EXPECT_EQ(error, FormatFileFailure("ctx", folder / "source", folder / "target",
                                     std::make_error_code(std::errc::file_exists), 1));
  EXPECT_EQ(clock.waits, 0);
  EXPECT_EQ(ReadFile(folder / "target"), "new");
}

}  // namespace
}  // namespace zul
