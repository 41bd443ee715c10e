#include <gtest/gtest.h>

#include <latch>
#include <thread>

#include "collector/emergency_record_win32.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

constexpr DWORD kTestException = 0xE0515641;

// What a crash handler finds ready.
fs::File g_file;
EmergencyRecord g_record;
bool g_written = false;

LONG CALLBACK RecordAndGoOn(EXCEPTION_POINTERS* exception) {
  if (exception->ExceptionRecord->ExceptionCode != kTestException) return EXCEPTION_CONTINUE_SEARCH;
  FillEmergencyRecord(g_record, EmergencyKind::kNativeException, exception);
  g_written = WriteEmergencyRecord(g_file, g_record);
  return EXCEPTION_CONTINUE_EXECUTION;
}

/// Holds the locks of all heaps until told to stop, so that whoever asks for memory waits. Ends the
/// process when that takes long.
void HoldHeaps(const std::stop_token& stop, std::latch& held) {
  HANDLE heaps[64];
  const DWORD count = ::GetProcessHeaps(64, heaps);
  for (DWORD i = 0; i < count; ++i) ::HeapLock(heaps[i]);
  held.count_down();
  for (int waited_ms = 0; !stop.stop_requested(); waited_ms += 10) {
    if (waited_ms > 20000) ::TerminateProcess(::GetCurrentProcess(), 99);
    ::Sleep(10);
  }
  for (DWORD i = 0; i < count; ++i) ::HeapUnlock(heaps[i]);
}

TEST(EmergencyRecordInTheCrashPath, IsFilledAndWrittenWithTheHeapsLocked) {
  const test::TempFolder folder;
  std::error_code ec;
  g_file = CreateEmergencyFile(folder.path(), ec);
  void* const handler = ::AddVectoredExceptionHandler(1, RecordAndGoOn);
  std::latch held(1);
  std::jthread holder(HoldHeaps, std::ref(held));
  held.wait();
  ::RaiseException(kTestException, 0, 0, nullptr);
  holder.request_stop();
  holder.join();
  ::RemoveVectoredExceptionHandler(handler);
  g_file = fs::File();
  ASSERT_TRUE(g_written);
  auto read = ParseEmergencyRecord(test::ReadFile(folder / "emergency.bin"));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->exception_code, kTestException);
  EXPECT_EQ(read->thread_id, ::GetCurrentThreadId());
  EXPECT_EQ(read->kind, 1u);
  EXPECT_NE(read->instruction_pointer, 0u);
  EXPECT_EQ(read->instruction_pointer, ContextIn(*read)->Rip);

  ::RtlCaptureContext(ContextIn(*read));
  FillEmergencyRecord(*read, EmergencyKind::kTerminate, nullptr);
  EXPECT_EQ(read->instruction_pointer, ContextIn(*read)->Rip);
  EXPECT_EQ(read->exception_code, 0u);
  EXPECT_EQ(read->kind, 2u);
}

}  // namespace
}  // namespace zul
