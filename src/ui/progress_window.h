#pragma once

// The updater's one small window: title, detail, bar, download figures and, while locks are
// cleared, a Force close button. UpdateProgressWindow holds the state and decides what is shown and
// when it is painted; a ProgressSurface draws it. There is no interface thread: the window belongs
// to the thread that runs the update, and every operation ends by pumping that thread's messages.
//
// Life of the native window: none before the first operation; made by whichever operation comes
// first; minimised, never closed, by the user; gone after Destroy() or with the object. When it
// cannot be made every operation goes on without it and the next one tries again.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "core/keep_alive.h"

namespace zul {

class UpdateProgressWindow;

/// What the window is drawn on. One implementation is a real window (progress_surface_win32.cpp),
/// the other one is a test's. No operation but EnsureCreated does anything while there is no
/// window.
class ProgressSurface {
 public:
  virtual ~ProgressSurface() = default;
  /// Makes the native window if there is none. Failure leaves none; the run goes on without.
  /// `state` is borrowed and must outlive the surface's window.
  virtual void EnsureCreated(UpdateProgressWindow& state) = 0;
  /// Shows the state as it is now.
  virtual void Repaint() = 0;
  /// Brings the button's visibility, text and enabled state in line with the state.
  virtual void RefreshButton() = 0;
  /// Handles every message that waits for this thread. May be asked at any rate: a surface may
  /// leave messages that came a few milliseconds ago to the next call.
  virtual void PumpMessages() = 0;
  /// Removes the native window and pumps what that leaves behind.
  virtual void DestroyWindow() = 0;
};

/// The real window on the screen. Windows only.
[[nodiscard]] std::unique_ptr<ProgressSurface> CreateScreenSurface();

class UpdateProgressWindow {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  /// Nothing shows before the first operation. Without a clock the steady clock is used.
  explicit UpdateProgressWindow(std::unique_ptr<ProgressSurface> surface, Clock clock = {});
  ~UpdateProgressWindow();
  UpdateProgressWindow(const UpdateProgressWindow&) = delete;
  UpdateProgressWindow& operator=(const UpdateProgressWindow&) = delete;

  /// Shows a headline and a detail (UTF-8); a negative percent means unknown. Clears the figures.
  void set_status(std::string_view title, std::string_view detail, int percent);

  /// Shows the figures of a download. Paints at most every 250 ms and only what has changed, but
  /// always when it is finished. `total` 0 means unknown, and so does a rate of 0; `source` is the
  /// origin label.
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

  /// The user pressed the button. Counts only while the button is offered, so that a stray message
  /// can never ask for the application to be ended.
  void PressForceClose();
  /// The headline; a text of its own before the first one is set.
  [[nodiscard]] std::wstring_view shown_title() const;
  [[nodiscard]] const std::wstring& detail() const { return detail_; }
  /// The line of download figures; empty when there is none to draw.
  [[nodiscard]] std::wstring figures() const;
  /// At most 100; negative means unknown.
  [[nodiscard]] int shown_percent() const { return percent_ > 100 ? 100 : percent_; }
  /// What stands on the bar: "42%" or "Working...".
  [[nodiscard]] std::wstring percent_text() const;
  [[nodiscard]] bool force_visible() const { return force_visible_; }
  [[nodiscard]] bool force_enabled() const { return force_visible_ && !force_requested_; }
  [[nodiscard]] const wchar_t* force_button_text() const;

 private:
  [[nodiscard]] bool PaintIsDue(std::chrono::steady_clock::time_point now) const;

  std::unique_ptr<ProgressSurface> surface_;
  Clock clock_;
  int percent_ = -1;
  std::uint64_t downloaded_ = 0;
  std::uint64_t total_ = 0;
  std::uint64_t bytes_per_second_ = 0;
  bool has_figures_ = false;
  bool force_visible_ = false;
  bool force_requested_ = false;
  std::wstring title_;
  std::wstring detail_;
  // Memory of the throttle: the last paint of download figures.
  bool painted_ = false;
  std::chrono::steady_clock::time_point last_paint_time_{};
  std::uint64_t last_paint_downloaded_ = 0;
  int last_paint_percent_ = -1;
};

/// Handles the window's messages, for long work; empty without a window, which is borrowed.
[[nodiscard]] KeepAlive KeepingAlive(UpdateProgressWindow* window);

/// A byte count as the window shows it: "512 B", "1.5 KB", "2.0 MB", "1.1 GB". Powers of 1024.
[[nodiscard]] std::string FormatByteCount(std::uint64_t bytes);

}  // namespace zul
