// Locks as other processes hold them: a second handle on the file, without sharing or with less
// sharing than a change needs.

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "apply/retry_file_ops.h"
#include "core/handle_win32.h"
#include "core/text.h"
#include "tests/apply/installation.h"

namespace zul {
namespace {

using std::chrono::milliseconds;
using test::Installation;
using test::ReadFile;
using test::Snapshot;
using test::TakeSnapshot;
using test::TempFolder;
using test::WriteFile;

constexpr DWORD kShareNothing = 0;

UniqueFileHandle Hold(const fs::Path& path, DWORD sharing) {
  UniqueFileHandle handle(::CreateFileW(path.c_str(), GENERIC_READ, sharing, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_TRUE(handle.valid());
  return handle;
}

struct LockCase {
  const char* name;
  std::function<bool(const TempFolder&, std::string*, const RetryPolicy&)> operation;
  const char* held;  ///< file name
  DWORD sharing;
  bool refuses_read_only;
};

const LockCase kLocks[] = {
    {"replace",
     [](const TempFolder& folder, std::string* error, const RetryPolicy& policy) {
       return RetryReplaceFile(folder / "source", folder / "target", "ctx", error, policy);
     },
     "target", FILE_SHARE_READ, false},
    {"replace from a locked source",
     [](const TempFolder& folder, std::string* error, const RetryPolicy& policy) {
       return RetryReplaceFile(folder / "source", folder / "target", "ctx", error, policy);
     },
     "source", kShareNothing, false},
    {"copy",
     [](const TempFolder& folder, std::string* error, const RetryPolicy& policy) {
       return RetryCopyFile(folder / "source", folder / "target", "ctx", error, policy);
     },
     "target", kShareNothing, true},
    {"remove",
     [](const TempFolder& folder, std::string* error, const RetryPolicy& policy) {
       return RetryRemoveFile(folder / "target", "ctx", error, policy);
     },
     "target", kShareNothing, true},
};

TEST(LockedFilesTest, RidesOutALockAndGivesUpAfterEightAttempts) {
  for (const LockCase& lock : kLocks) {
    for (const int clears_after : {1, 7, 8}) {
      SCOPED_TRACE(std::string(lock.name) + ", " + std::to_string(clears_after));
      TempFolder folder;
      WriteFile(folder / "source", "new");
      WriteFile(folder / "target", "old");
      UniqueFileHandle held = Hold(folder / lock.held, lock.sharing);
      int waits = 0;
      const RetryPolicy policy{8, milliseconds(200), [&](milliseconds wait) {
                                 EXPECT_EQ(wait, milliseconds(200));
                                 if (++waits == clears_after) held.Reset();
                               }};
      std::string error;
      const bool done = lock.operation(folder, &error, policy);
      held.Reset();
      EXPECT_EQ(done, clears_after < 8) << error;
      EXPECT_EQ(waits, clears_after < 8 ? clears_after : 7);
      if (!done) {
        EXPECT_NE(error.find("reason=permission_or_lock"), std::string::npos) << error;
        EXPECT_TRUE(error.ends_with("', attempts=8")) << error;
        EXPECT_EQ(TakeSnapshot(folder.path()), (Snapshot{{"source", "new"}, {"target", "old"}}));
      }
    }
  }
}

TEST(LockedFilesTest, OutlastsALockOfAnotherThread) {
  TempFolder folder;
  WriteFile(folder / "source", "new");
  WriteFile(folder / "target", "old");
  UniqueFileHandle held = Hold(folder / "target", kShareNothing);
  std::thread holder([&held] {
    std::this_thread::sleep_for(milliseconds(700));
    held.Reset();
  });
  std::string error;
  EXPECT_TRUE(RetryReplaceFile(folder / "source", folder / "target", "ctx", &error)) << error;
  holder.join();
  EXPECT_EQ(ReadFile(folder / "target"), "new");
}

// Replacing a read-only file is left out: Windows refuses it with code 5, Wine does it.
TEST(LockedFilesTest, AReadOnlyTargetCountsAsALock) {
  TempFolder folder;
  WriteFile(folder / "source", "new");
  WriteFile(folder / "target", "old");
  const fs::Path target = folder / "target";
  ASSERT_TRUE(::SetFileAttributesW(target.c_str(), FILE_ATTRIBUTE_READONLY));
  for (const LockCase& lock : kLocks) {
    if (!lock.refuses_read_only) continue;
    int waits = 0;
    const RetryPolicy policy{8, milliseconds(200), [&](milliseconds) { ++waits; }};
    std::string error;
    EXPECT_FALSE(lock.operation(folder, &error, policy)) << lock.name;
    EXPECT_EQ(waits, 7) << lock.name;
    EXPECT_NE(error.find("reason=permission_or_lock, code=5,"), std::string::npos) << error;
  }
  EXPECT_EQ(TakeSnapshot(folder.path()), (Snapshot{{"source", "new"}, {"target", "old"}}));
}

// Older systems keep a removed file's name until its last handle is closed. That is no lock to wait
// for.
TEST(LockedFilesTest, ARemovedFileThatStaysIsRefusedAtOnce) {
  TempFolder folder;
  WriteFile(folder / "target", "old");
  const UniqueFileHandle held =
      Hold(folder / "target", FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
  int waits = 0;
  const RetryPolicy policy{8, milliseconds(200), [&](milliseconds) { ++waits; }};
  std::string error;
  if (RetryRemoveFile(folder / "target", "ctx", &error, policy)) {
    EXPECT_FALSE(test::Exists(folder / "target"));
  } else {
    EXPECT_EQ(error,
              FormatFileFailure("ctx", {}, folder / "target",
                                std::make_error_code(std::errc::device_or_resource_busy), 1));
    EXPECT_EQ(waits, 0);
  }
}

TEST(LockedFilesTest, AnApplyThatMeetsALockLeavesTheOldInstallation) {
  for (const bool after_a_retired_one : {false, true}) {
    Installation installation;
    installation.Install("data.bin", "old");
    if (after_a_retired_one) installation.Install("qorva.exe", "retired");
    installation.Stage("data.bin", "new");
    const Snapshot before = TakeSnapshot(installation.target_root);
    UniqueFileHandle held = Hold(installation.target_root / "data.bin", FILE_SHARE_READ);
    EXPECT_FALSE(installation.Apply());
    held.Reset();
    EXPECT_EQ(installation.outcome.kind, after_a_retired_one
                                             ? ApplyOutcomeKind::kRolledBack
                                             : ApplyOutcomeKind::kFailedBeforeChange);
    const std::string start = "apply update copy failed: source='" +
                              PathToUtf8(installation.staged_root / "data.bin") + "', target='" +
                              PathToUtf8(installation.target_root / "data.bin") +
                              "', reason=permission_or_lock, code=";
    EXPECT_EQ(installation.error.substr(0, start.size()), start);
    EXPECT_EQ(TakeSnapshot(installation.target_root), before);
  }
}

TEST(LockedFilesTest, ARollbackThatMeetsALockAsksForRecovery) {
  Installation installation;
  installation.Install("data.bin", "old");
  installation.Install("qorva.exe", "retired");
  installation.Stage("data.bin", "new");
  ApplyFaultInjection faults;
  faults.fail_after_replacements = 2;
  UniqueFileHandle held;
  int pumps = 0;
  EXPECT_FALSE(installation.Apply(faults, [&] {
    // After the removal and the replacement: the first record to be undone is data.bin's.
    if (++pumps == 3) held = Hold(installation.target_root / "data.bin", FILE_SHARE_READ);
  }));
  held.Reset();
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kRecoveryRequired);
  EXPECT_NE(installation.error.find("Rollback failure(s): rollback restore failed: source='" +
                                    PathToUtf8(installation.backup_root / "data.bin") + "'"),
            std::string::npos)
      << installation.error;
  EXPECT_TRUE(installation.error.ends_with("', attempts=8")) << installation.error;
  EXPECT_EQ(TakeSnapshot(installation.target_root),
            (Snapshot{{"data.bin", "new"}, {"qorva.exe", "retired"}}));
  EXPECT_EQ(TakeSnapshot(installation.backup_root),
            (Snapshot{{"data.bin", "old"}, {"qorva.exe", "retired"}}));
}

}  // namespace
}  // namespace zul
