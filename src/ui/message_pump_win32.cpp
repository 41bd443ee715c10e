#include "ui/message_pump.h"

#include <windows.h>

#include <chrono>
#include <optional>

namespace zul {

namespace {

thread_local std::optional<int> pending_quit;

/// As PumpUntilSignalled, for any of `count` handles.
bool PumpUntil(const HANDLE* handles, DWORD count, std::uint32_t timeout_ms) {
  using std::chrono::milliseconds;
  using std::chrono::steady_clock;
  const auto start = steady_clock::now();
  const auto elapsed_ms = [start] {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
  };
  for (auto elapsed = elapsed_ms(); elapsed < timeout_ms; elapsed = elapsed_ms()) {
    const DWORD left_ms = timeout_ms - static_cast<DWORD>(elapsed);
    const DWORD woken_by = ::MsgWaitForMultipleObjects(count, handles, FALSE, left_ms, QS_ALLINPUT);
    if (woken_by < WAIT_OBJECT_0 + count) return true;
    if (woken_by != WAIT_OBJECT_0 + count) return false;
    PumpPendingMessages();
  }
  return false;
}

}  // namespace

void PumpPendingMessages() {
  MSG message{};
  while (::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
    if (message.message == WM_QUIT) {
      pending_quit = static_cast<int>(message.wParam);
      continue;
    }
    ::TranslateMessage(&message);
    ::DispatchMessageW(&message);
  }
}

void RepostPendingQuit() {
  if (pending_quit.has_value()) ::PostQuitMessage(*pending_quit);
  pending_quit.reset();
}

bool PumpUntilSignalled(void* handle, std::uint32_t timeout_ms) {
  return PumpUntil(&handle, 1, timeout_ms);
}

void PumpFor(std::uint32_t duration_ms) {
  PumpUntil(nullptr, 0, duration_ms);
}

}  // namespace zul
