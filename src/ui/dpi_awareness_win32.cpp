#include "ui/dpi_awareness.h"

#include "ui/user32_function_win32.h"

namespace zul {

namespace {

bool SetAwareness() {
  // DPI_AWARENESS_CONTEXT_PER_MONITOR_AWARE_V2 of winuser.h.
  const auto per_monitor_v2 = std::bit_cast<HANDLE>(INT_PTR{-4});
  const auto set_context =
      FindUser32Function<BOOL(WINAPI*)(HANDLE)>("SetProcessDpiAwarenessContext");
  return (set_context != nullptr && set_context(per_monitor_v2)) || ::SetProcessDPIAware();
}

}  // namespace

void MakeProcessDpiAware() {
  [[maybe_unused]] static const bool aware = SetAwareness();
}

}  // namespace zul
