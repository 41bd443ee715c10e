#pragma once

// The updater's one small window: title, detail, bar, download figures and, while locks are
// cleared, a Force close button. UpdateProgressWindow holds the state and decides what is shown and
// when it is painted; a ProgressSurface draws it. There is no interface thread: the window belongs
// to the thread that runs the update, and every operation ends by pumping that thread's messages.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace zul {

class UpdateProgressWindow;

/// What the window is drawn on. One implementation is a real window (progress_window_win32.cpp),
/// the other one is a test's.
class ProgressSurface {
 public:
  virtual ~ProgressSurface() = default;
  /// Makes the native window if there is none. Failure leaves none; the run goes on without.
  virtual void EnsureCreated(UpdateProgressWindow& state) = 0;
  /// Shows the state as it is now.
  virtual void Repaint() = 0;
  /// Brings the button's visibility, text and enabled state in line with the state.
  virtual void RefreshButton() = 0;
  /// Handles every message that waits for this thread.
  virtual void PumpMessages() = 0;
  /// Removes the native window and pumps what that leaves behind.
  virtual void DestroyWindow() = 0;
};

/// The real window on the screen. Windows only.
[[nodiscard]] std::unique_ptr<ProgressSurface> CreateScreenSurface();

class UpdateProgressWindow {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  /// Nothing shows before the first operation.
  explicit UpdateProgressWindow(std::unique_ptr<ProgressSurface> surface, Clock clock = {});
  ~UpdateProgressWindow();
  UpdateProgressWindow(const UpdateProgressWindow&) = delete;
  UpdateProgressWindow& operator=(const UpdateProgressWindow&) = delete;

  /// Shows a headline and a detail (UTF-8); a negative percent means unknown. Clears the figures.
  void set_status(std::string_view title, std::string_view detail, int percent);

  /// Shows the figures of a download. Paints at most every 250 ms, but always when it is finished.
  /// `total` 0 means unknown; `source` is the origin label.
  void set_download_progress(std::string_view source, std::uint64_t downloaded, std::uint64_t total,
                             std::uint64_t bytes_per_second);

  /// Offers or withdraws the Force close button; withdrawing forgets a press.
  void set_force_close_available(bool visible);
  [[nodiscard]] bool force_close_requested() const { return force_requested_; }

  /// Keeps the window alive during a wait.
  void PumpMessages();

  /// Takes the window off the screen; a later operation would make it again.
  void Destroy();

  // For the surface.
  void PressForceClose();
  [[nodiscard]] const std::wstring& title() const { return title_; }
  [[nodiscard]] const std::wstring& detail() const { return detail_; }
  [[nodiscard]] const std::wstring& figures() const { return figures_; }
  [[nodiscard]] int percent() const { return percent_; }
  [[nodiscard]] bool force_visible() const { return force_visible_; }

 private:
  std::unique_ptr<ProgressSurface> surface_;
  Clock clock_;
  int percent_ = -1;
  std::uint64_t downloaded_ = 0;
  std::uint64_t total_ = 0;
  bool force_visible_ = false;
  bool force_requested_ = false;
  std::wstring title_;
  std::wstring detail_;
  std::wstring figures_;
  bool painted_ = false;
  std::chrono::steady_clock::time_point last_paint_time_{};
  std::uint64_t last_paint_downloaded_ = 0;
  int last_paint_percent_ = -1;
};

/// A byte count as the window shows it: "512 B", "1.5 KB", "2.0 MB", "1.1 GB".
[[nodiscard]] std::string FormatByteCount(std::uint64_t bytes);

}  // namespace zul
