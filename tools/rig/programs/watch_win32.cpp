// The verbs about windows of other processes: "close", "click" and "watch".

#include <algorithm>
#include <nlohmann/json.hpp>

#include "core/handle_win32.h"
#include "core/text.h"
#include "tools/rig/programs/rig_tool_win32.h"

namespace zul::rig {
namespace {

constexpr UINT kAnswerMs = 5000;

DWORD ProcessArgument(const Arguments& arguments) {
  return static_cast<DWORD>(std::stoul(arguments.at(1)));
}

}  // namespace

bool WaitUntil(unsigned timeout_ms, const std::function<bool()>& reached) {
  const ULONGLONG end = GetTickCount64() + timeout_ms;
  while (!reached()) {
    if (GetTickCount64() >= end) return false;
    Sleep(10);
  }
  return true;
}

std::vector<HWND> FindWindows(const wchar_t* window_class, DWORD pid, const wchar_t* title) {
  std::vector<HWND> found;
  HWND window = nullptr;
  while ((window = FindWindowExW(nullptr, window, window_class, title)) != nullptr) {
    DWORD owner = 0;
    GetWindowThreadProcessId(window, &owner);
    if (owner == pid && IsWindowVisible(window)) found.push_back(window);
  }
  return found;
}

std::string TextOf(HWND window) {
  DWORD_PTR length = 0;
  SendMessageTimeoutW(window, WM_GETTEXTLENGTH, 0, 0, SMTO_NORMAL, kAnswerMs, &length);
  std::wstring text(length + 1, L'\0');
  SendMessageTimeoutW(window, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()),
                      SMTO_NORMAL, kAnswerMs, &length);
  text.resize(length);
  return WideToUtf8Lossy(text);
}

int CloseWindows(const Arguments& arguments) {
  const auto windows = FindWindows(Widen(arguments.at(0)).c_str(), ProcessArgument(arguments));
  for (const HWND window : windows) PostMessageW(window, WM_CLOSE, 0, 0);
  return windows.empty() ? 1 : 0;
}

int ClickButton(const Arguments& arguments) {
  const int id = std::stoi(arguments.at(2));
  HWND button = nullptr;
  const bool found = WaitUntil(20000, [&] {
    for (const HWND window : FindWindows(Widen(arguments[0]).c_str(), ProcessArgument(arguments))) {
      button = GetDlgItem(window, id);
      if (button != nullptr && IsWindowVisible(button) && IsWindowEnabled(button)) return true;
    }
    return false;
  });
  if (!found) return 1;
  PrintLine(TextOf(button));
  PostMessageW(button, BM_CLICK, 0, 0);
  return 0;
}

int WatchWindow(const Arguments& arguments) {
  constexpr ULONGLONG kSlowMs = 50;
  const std::wstring window_class = Widen(arguments.at(0));
  const DWORD pid = ProcessArgument(arguments);
  const UniqueKernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
  int answers = 0;
  nlohmann::json slow = nlohmann::json::array();
  while (process && WaitForSingleObject(process.get(), 5) == WAIT_TIMEOUT) {
    for (const HWND window : FindWindows(window_class.c_str(), pid)) {
      const ULONGLONG asked = GetTickCount64();
      DWORD_PTR ignored = 0;
      const bool answered =
          SendMessageTimeoutW(window, WM_NULL, 0, 0, SMTO_BLOCK, kAnswerMs, &ignored) != 0;
      const ULONGLONG came = GetTickCount64();
      if (answered) ++answers;
      // A window that was destroyed meanwhile fails early and is not reported.
      if (came - asked >= (answered ? kSlowMs : kAnswerMs)) slow.push_back({asked, came});
    }
  }
  PrintLine(nlohmann::json{{"answers", answers}, {"slow", slow}}.dump());
  return 0;
}

}  // namespace zul::rig
