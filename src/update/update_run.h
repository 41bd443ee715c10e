#pragma once

// The state of one update run. The driver owns it; the stages know nothing of each other and hand
// on only what stands here.

#include <optional>
#include <string>
#include <string_view>

#include "apply/apply.h"
#include "core/file_layer.h"
#include "request/update_request.h"
#include "transfer/download.h"
#include "ui/progress_window.h"

namespace zul {

inline constexpr int kExitDone = 0;
inline constexpr int kExitFailure = 2;
inline constexpr int kExitArchiveMigrationRequired = 18;

struct UpdateRun {
  explicit UpdateRun(UpdateRequest parsed)
      : request(std::move(parsed)), progress_window(CreateScreenSurface()) {}

  const UpdateRequest request;
  fs::Path workspace_dir;  ///< empty until created
  fs::Path package_path;
  fs::Path stage_dir;
  std::string selected_url;  ///< the origin whose bytes are in `package_path`
  std::string stage_error;   ///< filled by whichever stage fails
  DownloadResult primary_result;
  DownloadResult fallback_result;
  fs::Path payload_root;
  fs::Path next_copy_path;   ///< staged copy of the updater that replaces itself; usually empty
  fs::Path deferred_target;  ///< the updater file that `next_copy_path` must replace
  UpdateProgressWindow progress_window;  ///< its native window is made by the first progress update
  ApplyOutcome apply_result;
};

/// What a stage answers: nothing to go on, or the exit code that ends the run.
using StageResult = std::optional<int>;

/// What the failure tails borrow from a run.
struct RunFailureContext {
  const UpdateRequest& request;
  UpdateProgressWindow& progress_window;
};

// The tails of a run that ends otherwise than with the application restarted: each queues a report,
// takes the window off the screen, tells the user, ends diagnostics in order, and gives the exit
// code. Ending diagnostics may take 15 s, and as long again as the request of an upload in flight.

/// The tail of a failed run.
[[nodiscard]] int FailRun(const RunFailureContext& context, std::string_view message);

/// The tail of a failed apply, which offers the current installer.
[[nodiscard]] int FailApply(const RunFailureContext& context, std::string_view message,
                            std::string_view selected_url);

/// The tail of a run that failed in `stage`, before there was a window.
[[nodiscard]] int FailBeforeWindow(const UpdateRequest& request, std::string_view stage,
                                   std::string_view message);

/// The tail that sends an archive-mode installation to the installer.
[[nodiscard]] int RefuseArchiveMode(const UpdateRequest& request, std::string_view message);

/// `FailRun` with `prefix` and the run's stage error.
[[nodiscard]] int FailRunWithStageError(UpdateRun& run, std::string_view prefix);

/// The download stage with its fallback: on success the package of `selected_url` lies at
/// `package_path` and has the digest of the request.
[[nodiscard]] StageResult FetchPackage(UpdateRun& run);

}  // namespace zul
