#pragma once

// One update run: its state, and the ways in which it ends. For the
// files of this room and their tests.

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "apply/apply.h"
#include "core/file.h"
#include "core/lock_file.h"
#include "core/path.h"
#include "request/update_request.h"
#include "transfer/download.h"
#include "ui/progress_window.h"
#include "update/update_world.h"

namespace zul {

/// Exit codes of the process.
inline constexpr int kExitDone = 0;
inline constexpr int kExitFailure = 2;
inline constexpr int kExitArchiveMigrationRequired = 18;

/// The state of one run. The driver owns it. The stages share nothing else.
struct UpdateRun {
  /// `outside` is borrowed and must outlive the run.
  UpdateRun(const UpdateWorld& outside, UpdateRequest parsed)
      : world(outside),
        request(std::move(parsed)),
        progress_window(outside.create_screen_surface()) {}

  const UpdateWorld& world;
  const UpdateRequest request;
  /// Held from the first stage that may lead to a change of the installation until the run has made
  /// its last change.
  fs::LockFile claim;
  fs::Path workspace_dir;   ///< empty until created
  fs::File workspace_hold;  ///< see PrivateFolder::hold
  fs::Path package_path;
  fs::File package;  ///< open from before its checksum until the end of the extraction
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

/// The stage after which no other updater works on this installation. Refuses the run while one
/// does; nothing has been downloaded and no process has been asked to close by then.
[[nodiscard]] StageResult ClaimTarget(UpdateRun& run);

/// The download stage with its fallback. On success the package of `selected_url` lies at
/// `package_path`, has the digest of the request, and stays as it is while `package` is open.
[[nodiscard]] StageResult FetchPackage(UpdateRun& run);

// The failure tails. Each removes the staged copy of the updater, releases the claim on the
// installation, queues a report, takes the window off the screen, shows a message box, ends
// diagnostics in order, and returns the exit code. The workspace stays for support. Ending
// diagnostics takes up to 15 s, and then as long as the request of an upload in flight.

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
