#pragma once

// A progress window without a screen that remembers what was painted.

#include <string>
#include <vector>

#include "core/text.h"
#include "ui/progress_window.h"

namespace zul::test {

class RecordingSurface : public ProgressSurface {
 public:
  explicit RecordingSurface(std::vector<std::string>& paints) : paints_(paints) {}
  void EnsureCreated(UpdateProgressWindow& state) override { state_ = &state; }
  void Repaint() override {
    paints_.push_back(
        WideToUtf8Lossy(state_->shown_title()) + " | " + WideToUtf8Lossy(state_->detail()) + " | " +
        WideToUtf8Lossy(state_->figures()) + " | " + std::to_string(state_->shown_percent()));
  }
  void RefreshButton() override {}
  void PumpMessages() override {}
  void DestroyWindow() override {}

 private:
  std::vector<std::string>& paints_;
  UpdateProgressWindow* state_ = nullptr;
};

}  // namespace zul::test
