#pragma once

// The updater's window: title, detail, bar, download figures and, while locks are cleared, a Force
// close button. UpdateProgressWindow has the state and decides what is shown and when it is
// painted; a ProgressSurface draws it. There is no user-interface thread: the window belongs to the
// thread that runs the update, and every operation ends by pumping the messages of that thread.
//
// Life of the native window: the first operation creates it. The user can move and minimise it but
// not close it, and it has no menu. Destroy() or the destructor removes it. When it cannot be
// created, the operation continues without it and the next operation tries again.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/keep_alive.h"

namespace zul {

class UpdateProgressWindow;

/// The native window. One implementation is the real window (progress_surface_win32.cpp), the other
/// is a fake for tests. Without a native window every operation except EnsureCreated does nothing.
class ProgressSurface {
 public:
  virtual ~ProgressSurface() = default;
  /// Creates the native window unless it exists. A failure leaves none. `state` is borrowed and
  /// must outlive the native window.
  virtual void EnsureCreated(UpdateProgressWindow& state) = 0;
  /// Paints the current state.
  virtual void Repaint() = 0;
  /// Updates visibility, text and enabled state of the button from the state.
  virtual void RefreshButton() = 0;
  /// Updates from the state whether the window is in front of all others.
  virtual void RefreshPlacement() = 0;
  /// Updates from the state the reason that the system shows when the user logs off.
  virtual void RefreshSessionBlock() = 0;
  /// Handles the messages in this thread's queue. May be called at any rate: a surface may skip a
  /// call that follows another one within milliseconds.
  virtual void PumpMessages() = 0;
  /// Destroys the native window and pumps the messages that this causes.
  virtual void DestroyWindow() = 0;
};

/// The surface that is a real window on the screen. At most one per thread has a native window.
/// Windows only.
[[nodiscard]] std::unique_ptr<ProgressSurface> CreateScreenSurface();

/// The state of the window, and the operations through which the stages of the update report to the
/// user. For the thread of the update only.
class UpdateProgressWindow {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  /// Shows nothing before the first operation. An empty `clock` means the steady clock.
  explicit UpdateProgressWindow(std::unique_ptr<ProgressSurface> surface, Clock clock = {});
  ~UpdateProgressWindow();
  UpdateProgressWindow(const UpdateProgressWindow&) = delete;
  UpdateProgressWindow& operator=(const UpdateProgressWindow&) = delete;

  /// Shows a title and a detail text (UTF-8) and clears the figures. A negative `percent` means
  /// unknown.
  void set_status(std::string_view title, std::string_view detail, int percent);

  /// Shows the figures of a download from the origin `source`, in bytes. Paints at most every 250
  /// ms, only after a change, and always when the download is complete. A `total` or a rate of 0
  /// means unknown.
  void set_download_progress(std::string_view source, std::uint64_t downloaded, std::uint64_t total,
                             std::uint64_t bytes_per_second);

  /// Shows or hides the Force close button. Hiding it also clears the user's request.
  void set_force_close_available(bool visible);
  /// True after the user has pressed the button, until it is hidden.
  [[nodiscard]] bool force_close_requested() const { return force_requested_; }

  /// While the update waits for processes of the application, the window gives way to their boxes:
  /// it is not in front of all others. An empty list ends this.
  void give_way_to(std::vector<std::uint32_t> pids);

  /// While the installation is being changed, the window refuses the end of the user's session and
  /// says why.
  void set_changes_in_progress(bool in_progress);

  /// Keeps the window responsive during a wait.
  void PumpMessages();

  /// Removes the window from the screen. A later operation creates it again.
  void Destroy();

  // For the surface.

  /// The user has pressed the button. Ignored while the button is hidden, so that a stray message
  /// cannot request the end of the application.
  void PressForceClose();
  /// The title, or "Preparing update..." when it is empty.
  [[nodiscard]] std::wstring_view shown_title() const;
  /// The text below the title.
  [[nodiscard]] const std::wstring& detail() const { return detail_; }
  /// The line of download figures. Empty when there are none.
  [[nodiscard]] std::wstring figures() const;
  /// At most 100; negative means unknown.
  [[nodiscard]] int shown_percent() const { return percent_ > 100 ? 100 : percent_; }
  /// The text on the bar: "42%" or "Working...".
  [[nodiscard]] std::wstring percent_text() const;
  // The state of the Force close button.
  [[nodiscard]] bool force_visible() const { return force_visible_; }
  [[nodiscard]] bool force_enabled() const { return force_visible_ && !force_requested_; }
  [[nodiscard]] const wchar_t* force_button_text() const;
  /// The processes to whose boxes the window gives way.
  [[nodiscard]] const std::vector<std::uint32_t>& gives_way_to() const { return gives_way_to_; }
  /// Whether the user's session may not end now.
  [[nodiscard]] bool changes_in_progress() const { return changes_in_progress_; }

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
  bool changes_in_progress_ = false;
  std::vector<std::uint32_t> gives_way_to_;
  std::wstring title_;
  std::wstring detail_;
  // The last paint of download figures.
  bool painted_ = false;
  std::chrono::steady_clock::time_point last_paint_time_{};
  std::uint64_t last_paint_downloaded_ = 0;
  int last_paint_percent_ = -1;
};

/// Marks the time during which the installation is being changed: from the construction to the
/// destruction. `window` is borrowed and may be null.
class ChangesInProgress {
 public:
  explicit ChangesInProgress(UpdateProgressWindow* window) : window_(window) {
    if (window_ != nullptr) window_->set_changes_in_progress(true);
  }
  ~ChangesInProgress() {
    if (window_ != nullptr) window_->set_changes_in_progress(false);
  }
  ChangesInProgress(const ChangesInProgress&) = delete;
  ChangesInProgress& operator=(const ChangesInProgress&) = delete;

 private:
  UpdateProgressWindow* const window_;
};

/// A callback for long operations that pumps the messages of `window`, which is borrowed. Empty
/// when `window` is null.
[[nodiscard]] KeepAlive KeepingAlive(UpdateProgressWindow* window);

}  // namespace zul
