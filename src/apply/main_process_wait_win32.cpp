#include "apply/main_process_wait.h"

#include <windows.h>

#include <chrono>

#include "core/handle_win32.h"
#include "ui/message_pump.h"

namespace zul {

namespace {

bool WaitWithoutMessages(HANDLE process, std::uint32_t timeout_ms) {
  return ::WaitForSingleObject(process, timeout_ms) == WAIT_OBJECT_0;
}

bool WaitAndPump(HANDLE process, std::uint32_t timeout_ms) {
  using std::chrono::milliseconds;
  using std::chrono::steady_clock;
  const auto start = steady_clock::now();
  const auto elapsed_ms = [start] {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
  };
  for (auto elapsed = elapsed_ms(); elapsed < timeout_ms; elapsed = elapsed_ms()) {
    const DWORD left_ms = timeout_ms - static_cast<DWORD>(elapsed);
    const DWORD woken_by = ::MsgWaitForMultipleObjects(1, &process, FALSE, left_ms, QS_ALLINPUT);
    if (woken_by == WAIT_OBJECT_0) return true;
    if (woken_by != WAIT_OBJECT_0 + 1) return false;
    PumpPendingMessages();
  }
  return false;
}

}  // namespace

bool WaitForMainProcess(std::uint32_t pid, std::uint32_t timeout_ms, std::string* error,
                        bool pump_messages) {
  if (pid == 0) return true;
  const UniqueKernelHandle process(::OpenProcess(SYNCHRONIZE, FALSE, pid));
  if (!process) return true;
  const bool ended = pump_messages ? WaitAndPump(process.get(), timeout_ms)
                                   : WaitWithoutMessages(process.get(), timeout_ms);
  if (!ended && error != nullptr) *error = "Timed out waiting for main process to exit.";
  return ended;
}

}  // namespace zul
