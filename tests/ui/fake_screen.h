#pragma once

// A surface of the progress window without a screen. It records its calls and what it paints.

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "core/text.h"
#include "ui/progress_window.h"

namespace zul::test {

/// The record of a FakeSurface.
struct FakeScreen {
  /// C create, R repaint, B button, F front or not, S session block, P pump, D destroy
  std::string calls;
  std::vector<std::string> paints;         ///< "title | detail | percent | figures"
  UpdateProgressWindow* window = nullptr;  ///< the window on the screen
  std::function<void()> on_pump = [] {};
  std::function<void()> on_destroy = [] {};  ///< not again for a window that is gone

  std::string TakeCalls() { return std::exchange(calls, std::string()); }
};

class FakeSurface final : public ProgressSurface {
 public:
  explicit FakeSurface(FakeScreen& screen) : screen_(screen) {}
  ~FakeSurface() override { screen_.window = nullptr; }
  void EnsureCreated(UpdateProgressWindow& state) override {
    screen_.window = &state;
    screen_.calls += 'C';
  }
  void Repaint() override {
    screen_.calls += 'R';
    const UpdateProgressWindow& shown = *screen_.window;
    screen_.paints.push_back(WideToUtf8Lossy(std::wstring(shown.shown_title()) + L" | " +
                                             shown.detail() + L" | " + shown.percent_text() +
                                             L" | " + shown.figures()));
  }
  void RefreshButton() override { screen_.calls += 'B'; }
  void RefreshPlacement() override { screen_.calls += 'F'; }
  void RefreshSessionBlock() override { screen_.calls += 'S'; }
  void PumpMessages() override {
    screen_.calls += 'P';
    screen_.on_pump();
  }
  void DestroyWindow() override {
    screen_.calls += 'D';
    if (std::exchange(screen_.window, nullptr) != nullptr) screen_.on_destroy();
  }

 private:
  FakeScreen& screen_;
};

}  // namespace zul::test
