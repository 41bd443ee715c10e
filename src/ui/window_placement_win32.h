#pragma once

// The place of a window among the windows of other processes. For _win32.cpp files only.

#include <windows.h>

#include <cstdint>
#include <vector>

namespace zul {

/// With an empty `pids`, puts `window` in front of all other windows. Else the window stays among
/// the usual windows, below the open modal boxes of these processes, and they may bring a later box
/// to the foreground. Never activates the window.
void PlaceWindow(HWND window, const std::vector<std::uint32_t>& pids);

}  // namespace zul
