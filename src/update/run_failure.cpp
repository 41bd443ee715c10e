#include <functional>

#include "core/file_layer.h"
#include "core/text.h"
#include "diagnostics/report_manifest.h"
#include "trace/chain_events.h"
#include "transfer/url_policy.h"
#include "update/dialogs.h"
#include "update/update_run.h"

namespace zul {

namespace {

/// A failed run leaves nothing new in the target folder.
void DropNextCopy(UpdateRun& run) {
  if (run.next_copy_path.empty()) return;
  std::error_code ignored;
  fs::Remove(run.next_copy_path, ignored);
}

/// What the end of a failed run concerns.
struct RunFailureContext {
  const UpdateRequest& request;
  UpdateProgressWindow& progress_window;
};

/// The order of every tail. `show_box` shows the message to the user.
int ReportAndEnd(const UpdateWorld& world, const RunFailureContext& context,
                 std::string_view report_stage, std::string_view message,
                 const std::function<void()>& show_box, int exit_code) {
  // What earlier processes left is reported too, which may take long.
  RunKeepingAlive([&] { world.report_updater_error(context.request, report_stage, message); },
                  KeepingAlive(&context.progress_window));
  context.progress_window.Destroy();
  show_box();
  world.shutdown_diagnostics();
  return exit_code;
}

int EndRun(UpdateRun& run, std::string_view report_stage, std::string_view message,
           const std::function<void()>& show_box, int exit_code) {
  DropNextCopy(run);
  // The user may read the box for hours, and may start the update again before closing it.
  run.claim.Release();
  return ReportAndEnd(run.world, {run.request, run.progress_window}, report_stage, message,
                      show_box, exit_code);
}

}  // namespace

int FailRun(UpdateRun& run, std::string_view message, std::string_view report_stage) {
  return EndRun(
      run, report_stage, message, [&] { ShowUpdaterError(run.world, message); }, kExitFailure);
}

int FailApply(UpdateRun& run, std::string_view message) {
  return EndRun(
      run, "apply", message, [&] { ShowApplyFailureDialog(run.world, message, run.selected_url); },
      kExitFailure);
}

int RefuseArchiveMode(UpdateRun& run, std::string_view message) {
  return EndRun(
      run, "archive_installer_migration_required", message,
      [&] { ShowInstallerMigrationDialog(run.world, {}); }, kExitArchiveMigrationRequired);
}

void ReportUpdaterError(const UpdateRequest& request, std::string_view stage,
                        std::string_view message) {
  const std::string trace_log_path = TraceLogPath();
  ReportRequest report;
  report.kind = "updater_error";
  report.reason = message.empty() ? stage : message;
  report.report_file = PathOrEmpty(trace_log_path);
  report.trace_run_id = CorrelationId();
  report.details = {{"stage", std::string(stage)},
                    {"trace_log_path", trace_log_path},
                    {"target_dir", request.target_dir},
                    {"restart_exe", request.restart_exe},
                    {"download_url", StripUrlQuery(request.download_url)},
                    {"fallback_download_url", StripUrlQuery(request.fallback_download_url)}};
  EnqueueReport(report);
  StartDiagnosticsSession();
}

}  // namespace zul
