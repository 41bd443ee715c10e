#include "ui/window_placement_win32.h"

#include <algorithm>

namespace zul {

namespace {

constexpr UINT kOrderOnly = SWP_NOMOVE | SWP_NOSIZE | SWP_NOACTIVATE;

struct BoxSearch {
  const std::vector<std::uint32_t>& pids;
  HWND lowest = nullptr;
};

/// A modal box disables its owner. Other owned windows, such as palettes, are no reason to give
/// way.
bool IsModalBox(HWND window) {
  const HWND owner = GetWindow(window, GW_OWNER);
  return owner != nullptr && !IsWindowEnabled(owner) && IsWindowVisible(window) &&
         (GetWindowLongPtrW(window, GWL_EXSTYLE) & WS_EX_TOPMOST) == 0;
}

BOOL CALLBACK Visit(HWND window, LPARAM parameter) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): EnumWindows passes the pointer as an integer
  auto* const search = reinterpret_cast<BoxSearch*>(parameter);
  DWORD pid = 0;
  GetWindowThreadProcessId(window, &pid);
  const auto& pids = search->pids;
  if (std::find(pids.begin(), pids.end(), pid) != pids.end() && IsModalBox(window)) {
    search->lowest = window;
  }
  return TRUE;
}

/// Null when there is none.
HWND LowestModalBox(const std::vector<std::uint32_t>& pids) {
  BoxSearch search{pids};
  EnumWindows(&Visit, reinterpret_cast<LPARAM>(&search));  // from the front to the back
  return search.lowest;
}

}  // namespace

void PlaceWindow(HWND window, const std::vector<std::uint32_t>& pids) {
  if (pids.empty()) {
    SetWindowPos(window, HWND_TOPMOST, 0, 0, 0, 0, kOrderOnly);
    return;
  }
  for (const std::uint32_t pid : pids) AllowSetForegroundWindow(pid);
  SetWindowPos(window, HWND_NOTOPMOST, 0, 0, 0, 0, kOrderOnly);
  if (const HWND box = LowestModalBox(pids)) SetWindowPos(window, box, 0, 0, 0, 0, kOrderOnly);
}

}  // namespace zul
