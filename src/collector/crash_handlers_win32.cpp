#include "collector/crash_handlers_win32.h"

#include <cstdint>
#include <cstdlib>
#include <exception>

#include "collector/emergency_record_win32.h"

namespace zul {

namespace {

// A C++ exception on its way, as GCC's runtime raises it.
constexpr DWORD kGccThrow = 0x20474343;

constexpr DWORD kAnswerWaitMs = 4000;
constexpr UINT kExitStuckObserver = 71;
constexpr ULONG kStackGuaranteeBytes = 32768;

constinit std::atomic<CrashChannel*> g_channel{nullptr};
constinit std::atomic<bool> g_recorded{false};
constinit LPTOP_LEVEL_EXCEPTION_FILTER g_previous_filter = nullptr;
constinit std::terminate_handler g_previous_terminate = nullptr;

/// Hands the record to the observer and gives it time to look at this thread. One that does not
/// answer is ended: it must not hold up the process.
void TellObserver(CrashChannel& channel, const EmergencyRecord& record) noexcept {
  const HANDLE observer = channel.observer.load();
  if (observer == nullptr) return;
  channel.block->emergency = record;
  PlaceRequest(*channel.block, ObserverRequest::kCrash);
  ::ResetEvent(channel.ready_event);
  ::SetEvent(channel.crash_event);
  const HANDLE awaited[] = {channel.ready_event, observer};
  if (::WaitForMultipleObjects(2, awaited, FALSE, kAnswerWaitMs) == WAIT_TIMEOUT) {
    ::TerminateProcess(observer, kExitStuckObserver);
  }
}

/// Records the first crash of the process; a crash in here, or in another thread meanwhile, passes.
/// The record is a local, so that the frame that was captured stays while the observer walks it.
void RecordCrash(EmergencyKind kind, const EXCEPTION_POINTERS* exception) noexcept {
  CrashChannel* const channel = g_channel.load();
  if (channel == nullptr || g_recorded.exchange(true)) return;
  EmergencyRecord record;
  if (exception == nullptr || exception->ContextRecord == nullptr) {
    ::RtlCaptureContext(ContextIn(record));
  }
  FillEmergencyRecord(record, kind, exception);
  // Nobody is left to be told of a failure.
  static_cast<void>(WriteEmergencyRecord(channel->emergency_file, record));
  TellObserver(*channel, record);
}

bool IsGccThrow(const EXCEPTION_POINTERS* exception) noexcept {
  return exception != nullptr && exception->ExceptionRecord != nullptr &&
         exception->ExceptionRecord->ExceptionCode == kGccThrow;
}

LONG WINAPI FilterException(EXCEPTION_POINTERS* exception) {
  const bool cpp_throw = IsGccThrow(exception);
  if (!cpp_throw) RecordCrash(EmergencyKind::kNativeException, exception);
  if (g_previous_filter != nullptr) return g_previous_filter(exception);
  // A throw that nobody catches goes on to std::terminate, and is recorded there.
  return cpp_throw ? EXCEPTION_CONTINUE_EXECUTION : EXCEPTION_EXECUTE_HANDLER;
}

[[noreturn]] void HandleTerminate() {
  RecordCrash(EmergencyKind::kTerminate, nullptr);
  if (g_previous_terminate != nullptr) g_previous_terminate();
  std::abort();
}

}  // namespace

void InstallCrashHandlers(CrashChannel* channel) noexcept {
  g_channel.store(channel);
  g_previous_filter = ::SetUnhandledExceptionFilter(FilterException);
  g_previous_terminate = std::set_terminate(HandleTerminate);
  ULONG stack_bytes = kStackGuaranteeBytes;
  ::SetThreadStackGuarantee(&stack_bytes);
}

}  // namespace zul
