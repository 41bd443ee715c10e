// Asks the visible window of a class, of one process, for a sign of life over and over, until the
// process has ended, and tells how long the answers took. The window may come and go meanwhile. A
// window of its own, which has nothing else to do, is asked in the same way: what it needs for an
// answer is the machine's and not the process's.
//
//   window_watch --window-class CLASS --pid N [--slow-ms MS]
//       prints {"answers":1234,"idle_ms":9,"longest_ms":12,"slow":[[1766000000123,340,9]]}
//       where "slow" has each answer of at least MS (100 unless told): when it was asked for, in ms
//       since 1970, how long it took (5000 stands for none at all), and how long the idle window
//       took at most in that time; "idle_ms" is the longest that one ever took.
//       Exit code 0; 1 when there was never an answer; 64 usage.

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "core/handle_win32.h"
#include "tests/rig/programs/program_support_win32.h"

namespace zul::rig {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr UINT kAnswerMs = 5000;
constexpr DWORD kPauseMs = 5;

struct Answer {
  steady_clock::time_point asked;
  long long took_ms = 0;
  [[nodiscard]] steady_clock::time_point came() const { return asked + milliseconds(took_ms); }
};
using Answers = std::vector<Answer>;

/// Asks once; nothing is noted of a window that goes away.
void Ask(HWND window, Answers& answers) {
  const auto asked = steady_clock::now();
  DWORD_PTR ignored = 0;
  const bool answered =
      SendMessageTimeoutW(window, WM_NULL, 0, 0, SMTO_BLOCK, kAnswerMs, &ignored) != 0;
  const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - asked).count();
  if (answered || took >= kAnswerMs) answers.push_back({asked, took});
}

HWND WindowOf(const std::wstring& window_class, DWORD pid) {
  HWND window = nullptr;
  while ((window = FindWindowExW(nullptr, window, window_class.c_str(), nullptr)) != nullptr) {
    DWORD owner = 0;
    GetWindowThreadProcessId(window, &owner);
    if (owner == pid && IsWindowVisible(window)) return window;
  }
  return nullptr;
}

/// A window without any work, on a thread of its own, and another thread that asks it.
class IdleWindow {
 public:
  IdleWindow() : shower_([this] { Show(); }), asker_([this] { AskOn(); }) {}

  Answers Finish() {
    over_ = true;
    asker_.join();
    PostMessageW(window_, WM_CLOSE, 0, 0);
    shower_.join();
    return answers_;
  }

 private:
  void Show() {
    window_ = CreateWindowExW(0, L"STATIC", L"", WS_OVERLAPPED, 0, 0, 10, 10, nullptr, nullptr,
                              GetModuleHandleW(nullptr), nullptr);
    MSG message{};
    while (IsWindow(window_) && GetMessageW(&message, nullptr, 0, 0) > 0) {
      DispatchMessageW(&message);
    }
  }
  void AskOn() {
    for (; !over_; Sleep(kPauseMs)) {
      if (window_ != nullptr) Ask(window_, answers_);
    }
  }

  std::atomic<HWND> window_ = nullptr;
  std::atomic<bool> over_ = false;
  Answers answers_;
  std::thread shower_;
  std::thread asker_;
};

/// The longest answer of those that were on their way at some time between two points.
long long Longest(const Answers& answers, steady_clock::time_point from,
                  steady_clock::time_point to) {
  long long longest = 0;
  for (const Answer& answer : answers) {
    if (answer.asked < to && answer.came() > from) longest = std::max(longest, answer.took_ms);
  }
  return longest;
}

nlohmann::json Report(const Answers& answers, const Answers& idle, long long slow_ms) {
  constexpr auto kEver = steady_clock::time_point::min();
  constexpr auto kAlways = steady_clock::time_point::max();
  const auto to_system =
      std::chrono::system_clock::now().time_since_epoch() - steady_clock::now().time_since_epoch();
  nlohmann::json slow = nlohmann::json::array();
  for (const Answer& answer : answers) {
    if (answer.took_ms < slow_ms) continue;
    const auto at = answer.asked.time_since_epoch() + to_system;
    slow.push_back({std::chrono::duration_cast<milliseconds>(at).count(), answer.took_ms,
                    Longest(idle, answer.asked, answer.came())});
  }
  return {{"answers", answers.size()},
          {"longest_ms", Longest(answers, kEver, kAlways)},
          {"idle_ms", Longest(idle, kEver, kAlways)},
          {"slow", slow}};
}

int Run() {
  Options options(CommandLineArguments());
  const auto window_class = options.TakeValue("--window-class");
  const auto pid = options.TakeNumber("--pid");
  const auto slow_ms = static_cast<long long>(options.TakeNumber("--slow-ms").value_or(100));
  if (!window_class || !pid || !options.empty()) {
    return Usage("usage: window_watch --window-class CLASS --pid N [--slow-ms MS]");
  }
  const UniqueKernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(*pid)));
  IdleWindow idle;
  Answers answers;
  while (process && WaitForSingleObject(process.get(), kPauseMs) == WAIT_TIMEOUT) {
    const HWND window = WindowOf(Widen(*window_class), static_cast<DWORD>(*pid));
    if (window != nullptr) Ask(window, answers);
  }
  PrintLine(Report(answers, idle.Finish(), slow_ms).dump());
  return answers.empty() ? 1 : 0;
}

}  // namespace
}  // namespace zul::rig

int wmain() {
  return zul::rig::Run();
}
