#include "ui/message_pump.h"

#include <windows.h>

#include <optional>

namespace zul {

namespace {

thread_local std::optional<int> pending_quit;

}  // namespace

void PumpPendingMessages() {
  MSG message{};
  while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
    if (message.message == WM_QUIT) {
      pending_quit = static_cast<int>(message.wParam);
      continue;
    }
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
}

void RepostPendingQuit() {
  if (pending_quit.has_value()) PostQuitMessage(*pending_quit);
  pending_quit.reset();
}

}  // namespace zul
