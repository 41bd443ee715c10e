// Real holders and real ends: second handles with each share mode, and a child process.

#include <windows.h>

#include <gtest/gtest.h>

#include "apply/target_lock.h"
#include "tests/apply/idle_process_win32.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(TargetLockTest, AnyOtherHandleIsALock) {
  const test::TempFolder folder;
  const fs::Path target = folder / "held.dll";
  test::WriteFile(target, "held");
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  for (const DWORD access : {DWORD{GENERIC_READ}, DWORD{GENERIC_WRITE}, DWORD{DELETE}}) {
    for (DWORD share = 0; share <= kShareAll; ++share) {
      UniqueFileHandle holder(
          ::CreateFileW(target.c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr));
      ASSERT_TRUE(holder.valid());
      LockProbeResult result;
      EXPECT_FALSE(ProbeTargetLock(target, 0, result, nullptr)) << access << " " << share;
      EXPECT_EQ(result.system_error, DWORD{ERROR_SHARING_VIOLATION}) << access << " " << share;
      EXPECT_NE(result.message, "");
      holder.Reset();
      EXPECT_TRUE(ProbeTargetLock(target, 0, result, nullptr)) << access << " " << share;
    }
  }
}

TEST(TargetLockTest, EndsAProcessWithTheLettersZulu) {
  const test::IdleProcess process;
  std::string error;
  EXPECT_TRUE(ForceCloseProcess(process.pid, &error)) << error;
  EXPECT_EQ(process.ExitCode(), 1515539541u);
}

TEST(TargetLockTest, NeverEndsNobodyOrItself) {
  for (const std::uint32_t pid : {std::uint32_t{0}, CurrentProcessId()}) {
    std::string error;
    EXPECT_FALSE(ForceCloseProcess(pid, &error));
    EXPECT_EQ(error, "Refusing to terminate invalid updater process id.");
    EXPECT_FALSE(ForceCloseProcess(pid, nullptr));
  }
  std::uint32_t gone = 0;
  {
    const test::IdleProcess process;
    gone = process.pid;
  }
  std::string error;
  EXPECT_TRUE(ForceCloseProcess(gone, &error));
  EXPECT_EQ(error, "");
}

}  // namespace
}  // namespace zul
