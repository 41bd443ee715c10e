#include "update/dialogs.h"
#include "update/update_run.h"

namespace zul {

int FailRun(const RunFailureContext& context, std::string_view message) {
  context.progress_window.Destroy();
  ShowUpdaterError(message);
  return kExitFailure;
}

int FailApply(const RunFailureContext& context, std::string_view message,
              std::string_view selected_url) {
  context.progress_window.Destroy();
  ShowApplyFailureDialog(message, selected_url);
  return kExitFailure;
}

int FailRunWithStageError(UpdateRun& run, std::string_view prefix) {
  std::string message(prefix);
  message += run.stage_error;
  return FailRun({run.request, run.progress_window}, message);
}

}  // namespace zul
