#include "diagnostics/diagnostics.h"
#include "update/dialogs.h"
#include "update/update_report.h"
#include "update/update_run.h"

namespace zul {

int FailRun(const RunFailureContext& context, std::string_view message) {
  ReportUpdaterError(context.request, "error", message);
  context.progress_window.Destroy();
  ShowUpdaterError(message);
  ShutdownDiagnostics();
  return kExitFailure;
}

int FailApply(const RunFailureContext& context, std::string_view message,
              std::string_view selected_url) {
  ReportUpdaterError(context.request, "apply", message);
  context.progress_window.Destroy();
  ShowApplyFailureDialog(message, selected_url);
  ShutdownDiagnostics();
  return kExitFailure;
}

int FailRunWithStageError(UpdateRun& run, std::string_view prefix) {
  std::string message(prefix);
  message += run.stage_error;
  return FailRun({run.request, run.progress_window}, message);
}

int FailBeforeWindow(const UpdateRequest& request, std::string_view stage,
                     std::string_view message) {
  ReportUpdaterError(request, stage, message);
  ShowUpdaterError(message);
  ShutdownDiagnostics();
  return kExitFailure;
}

int RefuseArchiveMode(const UpdateRequest& request, std::string_view message) {
  ReportUpdaterError(request, "archive_installer_migration_required", message);
  ShowInstallerMigrationDialog({});
  ShutdownDiagnostics();
  return kExitArchiveMigrationRequired;
}

}  // namespace zul
