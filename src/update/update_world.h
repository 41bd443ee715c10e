#pragma once

// What an update run asks of the world besides the disk: the system's own calls in the program, a
// scene with state in the tests.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "apply/apply.h"
#include "apply/isolated_helper.h"
#include "core/path.h"
#include "diagnostics/diagnostics.h"
#include "request/update_request.h"
#include "transfer/download.h"
#include "ui/progress_window.h"
#include "update/install_classification.h"

namespace zul {

/// Buttons and icon of a box. The values are the flags of the platform's MessageBoxW.
enum class BoxStyle : std::uint32_t {
  kError = 0x10,        ///< OK, error icon
  kWarning = 0x30,      ///< OK, warning icon
  kErrorChoice = 0x13,  ///< Yes, No and Cancel, error icon
  kNoticeChoice = 0x43  ///< Yes, No and Cancel, information icon
};

/// The button that closed a box. kOther is every button but Yes and No.
enum class BoxAnswer { kYes, kNo, kOther };

/// Queues the report of a run that failed in `stage`, with the trace as its text, and starts the
/// session of this process: what earlier processes left is reported too, and the upload begins.
/// The report's reason is `message`, or the stage when that is empty. Waits for no upload. A
/// failure is a log line.
void ReportUpdaterError(const UpdateRequest& request, std::string_view stage,
                        std::string_view message);

/// What a run asks of the world besides the disk. A member with the type of a function does what
/// that function does. All texts are UTF-8.
struct UpdateWorld {
  /// Full path of this process's executable; empty when the system does not report it.
  fs::Path own_executable;
  std::function<decltype(ClassifyCurrentProcess)> classify_current_process;

  // Stages that need the network or other processes.
  std::function<decltype(RelaunchFromTargetIfNeeded)> relaunch_from_target_if_needed;
  std::function<decltype(DownloadPackage)> download_package;
  std::function<decltype(WaitForMainProcess)> wait_for_main_process;
  std::function<decltype(ApplyStagedUpdate)> apply_staged_update;
  /// As ReplaceUpdaterDeferred with the file layer's moves.
  std::function<bool(const fs::Path& source, const fs::Path& target, std::string* error)>
      replace_updater_deferred;
  /// Starts `exe` with `arguments` as they are. True when the process exists; does not wait for it.
  /// On failure `error` (may be null) receives the message.
  std::function<bool(std::string_view exe, std::string_view arguments, std::string* error)>
      launch_application;
  /// Has the application that runs on this desktop show its update screen. False when none took
  /// the request.
  std::function<bool()> show_running_application;

  // What the user sees.
  std::function<decltype(CreateScreenSurface)> create_screen_surface;
  /// Shows a modal box with a text that is not empty, and blocks until it is dismissed.
  std::function<BoxAnswer(const std::string& text, BoxStyle style)> show_box;
  /// Asks the system to open `url`. False when it could not be started.
  std::function<bool(std::string_view url)> open_url_in_browser;
  /// Replaces the content of the clipboard. False when the clipboard is unavailable.
  std::function<bool(std::string_view text)> copy_text_to_clipboard;
  /// Writes `text` to the standard output. Does nothing when there is none.
  std::function<void(std::string_view text)> print;

  // Diagnostics.
  std::function<decltype(ReportUpdaterError)> report_updater_error;
  std::function<decltype(ShutdownDiagnostics)> shutdown_diagnostics;
};

}  // namespace zul
