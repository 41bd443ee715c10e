#pragma once

// One update run: the world that it acts on, its state, and the ways in which it ends. For the
// files of this room and their tests.

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "apply/apply.h"
#include "apply/isolated_helper.h"
#include "apply/target_lock.h"
#include "core/path.h"
#include "diagnostics/diagnostics.h"
#include "request/update_request.h"
#include "transfer/download.h"
#include "ui/progress_window.h"
#include "update/dialogs.h"
#include "update/install_classification.h"

namespace zul {

/// Exit codes of the process.
inline constexpr int kExitDone = 0;
inline constexpr int kExitFailure = 2;
inline constexpr int kExitArchiveMigrationRequired = 18;

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

/// The state of one run. The driver owns it. The stages share nothing else.
struct UpdateRun {
  /// `outside` is borrowed and must outlive the run.
  UpdateRun(const UpdateWorld& outside, UpdateRequest parsed)
      : world(outside),
        request(std::move(parsed)),
        progress_window(outside.create_screen_surface()) {}

  const UpdateWorld& world;
  const UpdateRequest request;
  fs::Path workspace_dir;  ///< empty until created
  fs::Path package_path;
  fs::Path stage_dir;
  std::string selected_url;  ///< the origin whose bytes are in `package_path`
  std::string stage_error;   ///< filled by the stage that fails
  DownloadResult primary_result;
  DownloadResult fallback_result;
  fs::Path payload_root;
  /// Staged copy of the updater that replaces itself, in the target folder. Usually empty; empty
  /// again once it has been handed over to `replace_updater_deferred`.
  fs::Path next_copy_path;
  fs::Path deferred_target;              ///< the updater file that `next_copy_path` must replace
  UpdateProgressWindow progress_window;  ///< the first progress update creates the native window
  ApplyOutcome apply_result;
};

/// What a stage returns: nothing to go on, or the exit code that ends the run.
using StageResult = std::optional<int>;

/// The download stage with its fallback. On success the package of `selected_url` lies at
/// `package_path` and has the digest of the request.
[[nodiscard]] StageResult FetchPackage(UpdateRun& run);

// The failure tails. Each removes the staged copy of the updater, queues a report, takes the window
// off the screen, shows a message box, ends diagnostics in order, and returns the exit code. The
// workspace stays for support. Ending diagnostics takes up to 15 s, and then as long as the request
// of an upload in flight.

/// The tail of a failed run. `report_stage` is the stage in the report.
[[nodiscard]] int FailRun(UpdateRun& run, std::string_view message,
                          std::string_view report_stage = "error");

/// The tail of a failed apply, which offers the current installer.
[[nodiscard]] int FailApply(UpdateRun& run, std::string_view message);

/// The tail that sends an archive-mode installation to the installer. The user reads the migration
/// notice; `message` is for the report.
[[nodiscard]] int RefuseArchiveMode(UpdateRun& run, std::string_view message);

/// The updater started by hand: has the running application show its update screen, or starts the
/// application beside this executable. When that fails, a box says why. An archive-mode copy shows
/// the migration notice instead. Returns the exit code.
[[nodiscard]] int RunWithoutRequest(const UpdateWorld& world);

}  // namespace zul
