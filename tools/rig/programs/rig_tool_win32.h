#pragma once

// The verbs of rig_tool.exe. The head comment of rig_tool_win32.cpp describes them.

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "tools/rig/programs/program_support_win32.h"

namespace zul::rig {

// Each takes the arguments after its name and returns the exit code.
int RunProgram(const Arguments& arguments);
int CloseWindows(const Arguments& arguments);
int ClickButton(const Arguments& arguments);
int WatchWindow(const Arguments& arguments);

/// The visible top-level windows of a class and a process; with any title when `title` is null.
[[nodiscard]] std::vector<HWND> FindWindows(const wchar_t* window_class, DWORD pid,
                                            const wchar_t* title = nullptr);

/// The controls of a dialog, in the order in which they were created.
[[nodiscard]] std::vector<HWND> ControlsOf(HWND window);

/// The text of a window or control of another process, as UTF-8.
[[nodiscard]] std::string TextOf(HWND window);

/// Calls `reached` every 10 ms until it returns true or `timeout_ms` have passed; true in the first
/// case.
bool WaitUntil(unsigned timeout_ms, const std::function<bool()>& reached);

}  // namespace zul::rig
