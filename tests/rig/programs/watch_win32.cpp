// The verbs that look at windows of other processes: "close", "click" and "watch".
//
// "watch" asks the visible window of a class, of one process, for a sign of life over and over. The
// window may come and go meanwhile. A window of its own, which has nothing else to do, is asked in
// the same way: what it needs for an answer is the machine's and not the process's. It prints
//   {"answers":1234,"slow":[[340,9]]}
// where "slow" has each answer of 100 ms or more: how long it took (5000 stands for none at all),
// and how long the idle window took at most in that time.

#include <algorithm>
#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

#include "core/handle_win32.h"
#include "core/text.h"
#include "tests/rig/programs/rig_tool_win32.h"

namespace zul::rig {
namespace {

constexpr UINT kAnswerMs = 5000;
constexpr DWORD kPauseMs = 5;
constexpr ULONGLONG kSlowMs = 100;

struct Answer {
  ULONGLONG asked;
  ULONGLONG came;
};

/// Asks once; nothing is noted of a window that goes away.
void Ask(HWND window, std::vector<Answer>& answers) {
  const ULONGLONG asked = GetTickCount64();
  DWORD_PTR ignored = 0;
  const bool answered =
      SendMessageTimeoutW(window, WM_NULL, 0, 0, SMTO_BLOCK, kAnswerMs, &ignored) != 0;
  const ULONGLONG came = GetTickCount64();
  if (answered || came - asked >= kAnswerMs) answers.push_back({asked, came});
}

/// A window without any work, on a thread of its own.
void ShowIdleWindow(std::atomic<HWND>& window) {
  window = CreateWindowExW(0, L"STATIC", L"", WS_OVERLAPPED, 0, 0, 10, 10, nullptr, nullptr,
                           GetModuleHandleW(nullptr), nullptr);
  MSG message{};
  while (IsWindow(window) && GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
}

nlohmann::json Report(const std::vector<Answer>& answers, const std::vector<Answer>& idle) {
  nlohmann::json slow = nlohmann::json::array();
  for (const Answer& answer : answers) {
    if (answer.came - answer.asked < kSlowMs) continue;
    ULONGLONG machine = 0;
    for (const Answer& other : idle) {
      if (other.asked < answer.came && other.came > answer.asked)
        machine = std::max(machine, other.came - other.asked);
    }
    slow.push_back({answer.came - answer.asked, machine});
  }
  return {{"answers", answers.size()}, {"slow", slow}};
}

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
  const std::wstring window_class = Widen(arguments.at(0));
  const DWORD pid = ProcessArgument(arguments);
  const UniqueKernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
  std::atomic<HWND> idle_window = nullptr;
  std::atomic<bool> over = false;
  std::vector<Answer> answers;
  std::vector<Answer> idle;
  std::thread shower([&] { ShowIdleWindow(idle_window); });
  std::thread asker([&] {
    for (; !over; Sleep(kPauseMs)) Ask(idle_window, idle);
  });
  while (process && WaitForSingleObject(process.get(), kPauseMs) == WAIT_TIMEOUT) {
    for (const HWND window : FindWindows(window_class.c_str(), pid)) Ask(window, answers);
  }
  over = true;
  asker.join();
  PostMessageW(idle_window, WM_CLOSE, 0, 0);
  shower.join();
  PrintLine(Report(answers, idle).dump());
  return 0;
}

}  // namespace zul::rig
