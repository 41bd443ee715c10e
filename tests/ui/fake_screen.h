#pragma once

// A surface of the progress window without a screen. It records its calls and what it paints.

#include <string>
#include <utility>
#include <vector>

#include "core/text.h"
#include "ui/progress_window.h"

namespace zul::test {

/// The record of a FakeSurface.
struct FakeScreen {
  std::string calls;                ///< C create, R repaint, B button, P pump, D destroy
  std::vector<std::string> paints;  ///< "title | detail | percent | figures"

  std::string TakeCalls() { return std::exchange(calls, std::string()); }
};

class FakeSurface final : public ProgressSurface {
 public:
  explicit FakeSurface(FakeScreen& screen) : screen_(screen) {}
  void EnsureCreated(UpdateProgressWindow& state) override {
    state_ = &state;
    screen_.calls += 'C';
  }
  void Repaint() override {
    screen_.calls += 'R';
    screen_.paints.push_back(WideToUtf8Lossy(std::wstring(state_->shown_title()) + L" | " +
                                             state_->detail() + L" | " + state_->percent_text() +
                                             L" | " + state_->figures()));
  }
  void RefreshButton() override { screen_.calls += 'B'; }
  void PumpMessages() override { screen_.calls += 'P'; }
  void DestroyWindow() override { screen_.calls += 'D'; }

 private:
  FakeScreen& screen_;
  UpdateProgressWindow* state_ = nullptr;
};

}  // namespace zul::test
