// The verbs about windows of other processes: "close", "click" and "watch".

#include <algorithm>
#include <chrono>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>

#include "core/handle_win32.h"
#include "core/text.h"
#include "tools/rig/programs/rig_tool_win32.h"

namespace zul::rig {
namespace {

constexpr UINT kAnswerMs = 5000;

struct Posted {
  UINT message;
  WPARAM wparam;
};

/// Each starts a loop of the system in a window that leaves it to the default procedure.
constexpr Posted kDisturbances[] = {{WM_SYSCOMMAND, SC_KEYMENU},
                                    {WM_SYSCOMMAND, SC_MOUSEMENU},
                                    {WM_SYSCOMMAND, SC_MOVE},
                                    {WM_SYSCOMMAND, SC_SIZE},
                                    {WM_CONTEXTMENU, 0},
                                    {WM_NCRBUTTONUP, HTCAPTION},
                                    {WM_NCLBUTTONDOWN, HTMINBUTTON},
                                    {WM_NCLBUTTONDOWN, HTCLOSE},
                                    {WM_NCLBUTTONDOWN, HTSYSMENU},
                                    {WM_NCLBUTTONDOWN, HTCAPTION},
                                    {WM_SYSCHAR, L' '}};

DWORD ProcessArgument(const Arguments& arguments) {
  return static_cast<DWORD>(std::stoul(arguments.at(1)));
}

// The windows are listed in one call. A search that continues from a window which is destroyed
// meanwhile makes the server of Wine 10 follow its list for ever, and no program gets an answer.
BOOL CALLBACK Collect(HWND window, LPARAM list) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the enumeration passes the pointer as an integer
  reinterpret_cast<std::vector<HWND>*>(list)->push_back(window);
  return TRUE;
}

bool HasNames(HWND window, const wchar_t* window_class, const wchar_t* title) {
  wchar_t name[256] = L"";
  GetClassNameW(window, name, std::size(name));
  if (std::wstring_view(name) != window_class) return false;
  // Asks the system: GetWindowTextW would wait for a window of this process.
  return title == nullptr || (InternalGetWindowText(window, name, std::size(name)) > 0 &&
                              std::wstring_view(name) == title);
}

/// Of a clock that all processes share. The system's tick count is too coarse.
ULONGLONG MillisecondsNow() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<ULONGLONG>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

void AppendIfChanged(nlohmann::json& values, bool value) {
  if (values.empty() || values.back() != value) values.push_back(value);
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
  std::vector<HWND> windows;
  EnumWindows(&Collect, reinterpret_cast<LPARAM>(&windows));
  std::erase_if(windows, [=](HWND window) {
    DWORD owner = 0;
    GetWindowThreadProcessId(window, &owner);
    return owner != pid || !IsWindowVisible(window) || !HasNames(window, window_class, title);
  });
  return windows;
}

std::vector<HWND> ControlsOf(HWND window) {
  std::vector<HWND> controls;
  EnumChildWindows(window, &Collect, reinterpret_cast<LPARAM>(&controls));
  return controls;
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
  const bool disturb = OptionValue(arguments, "--disturb").has_value();
  std::size_t rounds = 0;
  int answers = 0;
  ULONGLONG longest_ms = 0;
  nlohmann::json slow = nlohmann::json::array();
  nlohmann::json consents = nlohmann::json::array();
  nlohmann::json topmost = nlohmann::json::array();
  while (process && WaitForSingleObject(process.get(), 5) == WAIT_TIMEOUT) {
    for (const HWND window : FindWindows(window_class.c_str(), pid)) {
      const Posted& next = kDisturbances[rounds++ % std::size(kDisturbances)];
      if (disturb) PostMessageW(window, next.message, next.wparam, 0);
      AppendIfChanged(topmost, (GetWindowLongPtrW(window, GWL_EXSTYLE) & WS_EX_TOPMOST) != 0);
      const ULONGLONG asked = MillisecondsNow();
      DWORD_PTR answer = 0;
      const bool answered = SendMessageTimeoutW(window, WM_QUERYENDSESSION, 0, 0, SMTO_BLOCK,
                                                kAnswerMs, &answer) != 0;
      const ULONGLONG came = MillisecondsNow();
      const ULONGLONG waited_ms = came - asked;
      // A window that was destroyed meanwhile fails early and is not reported.
      if (!answered && waited_ms < kAnswerMs) continue;
      if (answered) ++answers, AppendIfChanged(consents, answer != 0);
      if (waited_ms >= kSlowMs) slow.push_back({asked, came});
      longest_ms = std::max(longest_ms, waited_ms);
    }
  }
  const nlohmann::json seen = {{"answers", answers},
                               {"longest_ms", longest_ms},
                               {"slow", slow},
                               {"consents", consents},
                               {"topmost", topmost}};
  PrintLine(seen.dump());
  return 0;
}

}  // namespace zul::rig
