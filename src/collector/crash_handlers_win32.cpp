#include "collector/crash_handlers_win32.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "collector/collector_block_win32.h"

namespace zul {

namespace {

// The code with which GCC's runtime raises a C++ exception.
constexpr DWORD kGccThrow = 0x20474343;

constexpr DWORD kAnswerWaitMs = 4000;
constexpr UINT kExitStuckObserver = 71;
constexpr ULONG kStackGuaranteeBytes = 32768;

constinit std::atomic<CrashChannel*> g_channel{nullptr};
constinit std::atomic<bool> g_recorded{false};
constinit LPTOP_LEVEL_EXCEPTION_FILTER g_previous_filter = nullptr;
constinit std::terminate_handler g_previous_terminate = nullptr;
/// The library's own handler, which is in force until a program installs one. It allocates and
/// prints, so it can block for ever in a process whose heap is locked.
const std::terminate_handler g_default_terminate = std::get_terminate();

/// Fills a record that has its magic and size, from `exception`. Where that lacks a context the
/// record keeps the one that it has.
void FillRecord(EmergencyKind kind, const EXCEPTION_POINTERS* exception,
                EmergencyRecord* record) noexcept {
  record->kind = static_cast<std::uint32_t>(kind);
  record->thread_id = ::GetCurrentThreadId();
  record->exception_code = 0;
  if (exception != nullptr && exception->ExceptionRecord != nullptr) {
    record->exception_code = exception->ExceptionRecord->ExceptionCode;
  }
  if (exception != nullptr && exception->ContextRecord != nullptr) {
    std::memcpy(record->context.data(), exception->ContextRecord, sizeof record->context);
  }
  std::memcpy(&record->instruction_pointer, record->context.data() + offsetof(CONTEXT, Rip),
              sizeof record->instruction_pointer);
}

/// Passes the record to the observer and waits while the observer walks this thread's stack. Ends
/// an observer that does not answer, so that it cannot delay the end of the process further.
void NotifyObserver(CrashChannel& channel, const EmergencyRecord& record) noexcept {
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

/// Records the first crash of the process. A crash inside this function, and a later one in another
/// thread, is not recorded. A terminate has no context of its own, so it is captured in this
/// function, which waits for the observer: its frame must be on the stack during the walk.
void RecordCrash(EmergencyKind kind, const EXCEPTION_POINTERS* exception) noexcept {
  if (g_channel.load() == nullptr || g_recorded.exchange(true)) return;
  EmergencyRecord record;
  if (exception == nullptr || exception->ContextRecord == nullptr) {
    ::RtlCaptureContext(ContextIn(record));
  }
  FillRecord(kind, exception, &record);
  // Loaded after the capture: to a compiler the capture may be a call that returns twice, and then
  // no variable keeps its value over it for certain.
  CrashChannel& channel = *g_channel.load();
  // A failure is ignored: the process ends in any case.
  static_cast<void>(WriteEmergencyRecord(channel.emergency_file, record));
  NotifyObserver(channel, record);
}

bool IsGccThrow(const EXCEPTION_POINTERS* exception) noexcept {
  return exception != nullptr && exception->ExceptionRecord != nullptr &&
         exception->ExceptionRecord->ExceptionCode == kGccThrow;
}

LONG WINAPI FilterException(EXCEPTION_POINTERS* exception) {
  const bool cpp_throw = IsGccThrow(exception);
  if (!cpp_throw) RecordCrash(EmergencyKind::kNativeException, exception);
  if (g_previous_filter != nullptr) return g_previous_filter(exception);
  // An uncaught throw continues to std::terminate, which records it.
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
  const std::terminate_handler previous = std::set_terminate(HandleTerminate);
  g_previous_terminate = previous == g_default_terminate ? nullptr : previous;
  ULONG stack_bytes = kStackGuaranteeBytes;
  ::SetThreadStackGuarantee(&stack_bytes);
}

}  // namespace zul
