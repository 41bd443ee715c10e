#pragma once

// The verbs of rig_tool.exe; what they do and print stands at the head of rig_tool_win32.cpp.

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "tools/rig/programs/program_support_win32.h"

namespace zul::rig {

// Each takes the arguments behind its name and returns the exit code.
int RunProgram(const Arguments& arguments);
int CloseWindows(const Arguments& arguments);
int ClickButton(const Arguments& arguments);
int WatchWindow(const Arguments& arguments);

/// Visible top-level windows of a class and process; of any title when `title` is null.
[[nodiscard]] std::vector<HWND> FindWindows(const wchar_t* window_class, DWORD pid,
                                            const wchar_t* title = nullptr);

/// The whole text of a window or control of another process.
[[nodiscard]] std::string TextOf(HWND window);

/// Asks every 10 ms until the answer is yes or the time is over.
bool WaitUntil(unsigned timeout_ms, const std::function<bool()>& reached);

}  // namespace zul::rig
