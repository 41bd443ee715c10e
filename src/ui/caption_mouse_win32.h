#pragma once

// The mouse on a window's caption. For _win32.cpp files only. The system's handling of a press
// there runs a modal loop until the release, so the window is moved and minimised without it.

#include <windows.h>

namespace zul {

/// Moves a window by its caption, and minimises it by its minimise and close buttons. One object
/// serves one window.
class CaptionMouse {
 public:
  /// Handles a message of `window`. False for a message that this class does not handle.
  bool Handle(HWND window, UINT message, WPARAM wparam);

  /// Call it when the window's size changes from `old_dpi` to `dpi`: the point of the caption that
  /// the mouse holds stays the same.
  void ChangeDpi(int old_dpi, int dpi);

 private:
  void Press(HWND window, WPARAM part);
  void Release(HWND window, WPARAM part);
  void Drag(HWND window, bool button_is_down);

  WPARAM pressed_ = HTNOWHERE;  ///< the hit-test code of the pressed part
  bool dragging_ = false;
  POINT grip_{};  ///< where the mouse holds the window, from its upper left corner
};

}  // namespace zul
