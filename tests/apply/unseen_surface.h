#pragma once

#include <functional>
#include <utility>

#include "ui/progress_window.h"

namespace zul::test {

/// A progress window without a native window. Calls a hook whenever messages are pumped.
class UnseenSurface final : public ProgressSurface {
 public:
  explicit UnseenSurface(std::function<void()> on_pump = {}) : on_pump_(std::move(on_pump)) {}
  void EnsureCreated(UpdateProgressWindow&) override {}
  void Repaint() override {}
  void RefreshButton() override {}
  void PumpMessages() override {
    if (on_pump_) on_pump_();
  }
  void DestroyWindow() override {}

 private:
  const std::function<void()> on_pump_;
};

}  // namespace zul::test
