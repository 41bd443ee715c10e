// Locks by a second handle on the file, as another process holds it, and the end of a process.

#include <windows.h>

#include <gtest/gtest.h>

#include <thread>

#include "apply/retry_file_ops.h"
#include "apply/target_lock.h"
#include "core/handle_win32.h"
#include "core/process_environment.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using std::chrono::milliseconds;

UniqueFileHandle Hold(const fs::Path& path, DWORD access, DWORD sharing) {
  UniqueFileHandle handle(
      ::CreateFileW(path.c_str(), access, sharing, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_TRUE(handle.valid());
  return handle;
}

TEST(SystemLocks, EveryOtherHandleIsALock) {
  const test::TempFolder folder;
  const fs::Path target = folder / "held.dll";
  test::WriteFile(target, "held");
  for (const DWORD access : {DWORD{GENERIC_READ}, DWORD{GENERIC_WRITE}, DWORD{DELETE}}) {
    for (const DWORD share :
         {DWORD{0}, DWORD{FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE}}) {
      LockProbeResult result;
      UniqueFileHandle holder = Hold(target, access, share);
      EXPECT_FALSE(ProbeTargetLock(target, 0, &result, nullptr)) << access << " " << share;
      EXPECT_EQ(result.system_error, DWORD{ERROR_SHARING_VIOLATION}) << access << " " << share;
      holder.Reset();
      EXPECT_TRUE(ProbeTargetLock(target, 0, &result, nullptr)) << access << " " << share;
    }
  }
}

TEST(SystemLocks, ReplacementsAndRemovalsMakeEightAttempts) {
  for (const bool remove : {false, true}) {
    for (const int clears_after : {1, 7, 8}) {
      SCOPED_TRACE(clears_after);
      const test::TempFolder folder;
      const fs::Path target = folder / "target";
      test::WriteFile(folder / "source", "new");
      test::WriteFile(target, "old");
      UniqueFileHandle held = Hold(target, GENERIC_READ, FILE_SHARE_READ);
      int waits = 0;
      const RetryPolicy policy{.sleep = [&](milliseconds wait) {
        EXPECT_EQ(wait, milliseconds(200));
        if (++waits == clears_after) held.Reset();
      }};
      std::string error;
      EXPECT_EQ(remove ? RetryRemoveFile(target, "ctx", &error, policy)
                       : RetryReplaceFile(folder / "source", target, "ctx", &error, policy),
                clears_after < 8);
      EXPECT_EQ(waits, std::min(clears_after, 7));
      if (clears_after < 8) continue;
      EXPECT_NE(error.find("reason=permission_or_lock, code="), std::string::npos) << error;
      EXPECT_TRUE(error.ends_with("', attempts=8")) << error;
      EXPECT_EQ(test::FilesBelow(folder.path()),
                (test::Files{{"source", "new"}, {"target", "old"}}));
    }
  }
}

TEST(ForceCloseProcess, RefusesPidZeroAndItsOwn) {
  EXPECT_FALSE(ForceCloseProcess(0, nullptr));
  EXPECT_FALSE(ForceCloseProcess(CurrentProcessId(), nullptr));
}

// Input neither ends the wait nor restarts its time.
TEST(WaitForMainProcess, TimesOutAndHandlesMessagesMeanwhile) {
  std::thread poster([thread = ::GetCurrentThreadId()] {
    for (int i = 0; i < 5; ++i) {
      std::this_thread::sleep_for(milliseconds(100));
      ::PostThreadMessageW(thread, WM_APP, 0, 0);
    }
  });
  const auto start = std::chrono::steady_clock::now();
  std::string error;
  EXPECT_FALSE(WaitForMainProcess(CurrentProcessId(), 600, &error, true));
  const auto took = std::chrono::steady_clock::now() - start;
  poster.join();
  EXPECT_EQ(error, "Timed out waiting for main process to exit.");
  EXPECT_TRUE(took >= milliseconds(590) && took < milliseconds(1'000)) << took.count();
  MSG message;
  EXPECT_FALSE(::PeekMessageW(&message, nullptr, WM_APP, WM_APP, PM_NOREMOVE));
}

}  // namespace
}  // namespace zul
