#include "ui/caption_mouse_win32.h"

#include "ui/progress_layout.h"

namespace zul {

namespace {

POINT CursorPosition() {
  POINT cursor{};
  GetCursorPos(&cursor);
  return cursor;
}

}  // namespace

bool CaptionMouse::Handle(HWND window, UINT message, WPARAM wparam) {
  switch (message) {
    case WM_NCLBUTTONDOWN:
    case WM_NCLBUTTONDBLCLK:
      Press(window, wparam);
      return true;
    case WM_NCLBUTTONUP:
      Release(window, wparam);
      return true;
    case WM_MOUSEMOVE:
      if (!dragging_) return false;
      Drag(window, (wparam & MK_LBUTTON) != 0);
      return true;
    case WM_LBUTTONUP:
      if (!dragging_) return false;
      ReleaseCapture();  // sends WM_CAPTURECHANGED
      return true;
    case WM_CAPTURECHANGED:
      dragging_ = false;
      return true;
    default:
      return false;
  }
}

void CaptionMouse::Press(HWND window, WPARAM part) {
  pressed_ = part;
  if (IsIconic(window)) {  // its caption is on the screen only where there is no taskbar
    ShowWindow(window, SW_RESTORE);
    return;
  }
  if (part != HTCAPTION) return;
  RECT outer{};
  GetWindowRect(window, &outer);
  const POINT cursor = CursorPosition();
  grip_ = {cursor.x - outer.left, cursor.y - outer.top};
  SetCapture(window);
  dragging_ = true;
}

void CaptionMouse::Release(HWND window, WPARAM part) {
  if (part == pressed_ && (part == HTMINBUTTON || part == HTCLOSE)) {
    ShowWindow(window, SW_MINIMIZE);
  }
  pressed_ = HTNOWHERE;
}

void CaptionMouse::Drag(HWND window, bool button_is_down) {
  if (!button_is_down) {  // a press that another process posted has no release
    ReleaseCapture();
    return;
  }
  const POINT cursor = CursorPosition();
  SetWindowPos(window, nullptr, cursor.x - grip_.x, cursor.y - grip_.y, 0, 0,
               SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
}

void CaptionMouse::ChangeDpi(int old_dpi, int dpi) {
  grip_ = {ScaleForDpi(grip_.x, dpi, old_dpi), ScaleForDpi(grip_.y, dpi, old_dpi)};
}

}  // namespace zul
