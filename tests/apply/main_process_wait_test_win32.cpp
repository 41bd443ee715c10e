#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "apply/main_process_wait.h"
#include "tests/apply/idle_process_win32.h"

namespace zul {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::IdleProcess;

/// A message-only window of this thread that counts what is posted to it.
class CountingWindow {
 public:
  CountingWindow() {
    answered = 0;
    ::SetWindowLongPtrW(window_, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&Procedure));
  }
  ~CountingWindow() { ::DestroyWindow(window_); }

  void Post() const { ::PostMessageW(window_, kMessage, 0, 0); }

  static inline int answered = 0;

 private:
  static constexpr UINT kMessage = WM_APP + 1;

  static LRESULT CALLBACK Procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == kMessage) ++answered;
    return ::DefWindowProcW(window, message, wparam, lparam);
  }

  const HWND window_ =
      ::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
};

struct TimedWait {
  TimedWait(std::uint32_t pid, std::uint32_t timeout_ms, bool pump) {
    const auto start = steady_clock::now();
    ended = WaitForMainProcess(pid, timeout_ms, &error, pump);
    took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
  }
  bool ended = false;
  std::string error;
  milliseconds took{};
};

TEST(MainProcessWaitTest, DoesNotWaitForAProcessThatIsGone) {
  std::uint32_t gone = 0;
  {
    const IdleProcess process;
    gone = process.pid;
  }
  for (const std::uint32_t pid : {std::uint32_t{0}, gone}) {
    for (const bool pump : {false, true}) {
      const TimedWait wait(pid, 20'000, pump);
      EXPECT_TRUE(wait.ended);
      EXPECT_LT(wait.took, milliseconds(5'000));
    }
  }
}

TEST(MainProcessWaitTest, EndsWithTheProcess) {
  for (const bool pump : {false, true}) {
    const IdleProcess process;
    std::thread ender([&process] {
      std::this_thread::sleep_for(milliseconds(300));
      process.End();
    });
    const TimedWait wait(process.pid, 20'000, pump);
    ender.join();
    EXPECT_TRUE(wait.ended) << wait.error;
    EXPECT_EQ(wait.error, "");
    EXPECT_GE(wait.took, milliseconds(250));
    EXPECT_LT(wait.took, milliseconds(10'000));
  }
}

TEST(MainProcessWaitTest, TimesOutAndAnswersMessagesMeanwhile) {
  const IdleProcess process;
  CountingWindow window;
  for (const bool pump : {false, true}) {
    CountingWindow::answered = 0;
    std::thread poster([&window] {
      for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(milliseconds(100));
        window.Post();
      }
    });
    const TimedWait wait(process.pid, 600, pump);
    poster.join();
    EXPECT_FALSE(wait.ended);
    EXPECT_EQ(wait.error, "Timed out waiting for main process to exit.");
    // Input must neither end the wait nor start its time anew.
    EXPECT_GE(wait.took, milliseconds(590));
    EXPECT_LT(wait.took, milliseconds(1'000));
    // Those of the wait without a pump are still in the queue at the second one.
    EXPECT_EQ(CountingWindow::answered, pump ? 10 : 0);
  }
  EXPECT_FALSE(WaitForMainProcess(process.pid, 0, nullptr, true));
}

}  // namespace
}  // namespace zul
