#include "update/driver.h"

#include <array>
#include <string>

#include "apply/isolated_helper.h"
#include "apply/self_replace.h"
#include "apply/target_lock.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/diagnostics.h"
#include "package/extract.h"
#include "package/layout.h"
#include "trace/chain_events.h"
#include "transfer/url_policy.h"
#include "update/install_classification.h"
#include "update/restart.h"
#include "update/run_without_request.h"
#include "update/update_run.h"
#include "update/validate_request.h"
#include "update/version_query.h"
#include "update/workspace.h"

namespace zul {

namespace {

constexpr std::uint32_t kMainProcessWaitMs = 180000;
// GetModuleFileNameW's longest answer.

StageResult ValidateStage(UpdateRun& run) {
  std::string error;
  if (ValidateUpdateRequest(run.request, &error)) return std::nullopt;
  return FailBeforeWindow(run.request, "validate",
                          error.empty() ? "Updater arguments are invalid." : error);
}

StageResult RefuseArchiveModeStage(UpdateRun& run) {
  const InstallClassification target = ClassifyInstallTarget(run.request.restart_exe);
  if (!target.is_archive) return std::nullopt;
  return RefuseArchiveMode(
      run.request,
      "QORVA archive mode requires installer migration; reject normal portable "
      "update package for archive mode; target reason: " +
          target.reason);
}

/// A copy that runs from inside the folder that it must update hands over to one outside.
StageResult IsolateHelperStage(UpdateRun& run) {
  bool relaunched = false;
  std::string error;
  if (!RelaunchFromTargetIfNeeded(run.request, &relaunched, &error)) {
    return FailBeforeWindow(
        run.request, "isolate_helper",
        error.empty() ? "Cannot relaunch updater helper outside the update target directory."
                      : error);
  }
  if (!relaunched) return std::nullopt;
  ShutdownDiagnostics();
  return kExitDone;
}

StageResult PrepareStage(UpdateRun& run) {
  const UpdateRequest& request = run.request;
  EmitChainEvent(
      "updater_run_start",
      {{"pid", std::to_string(request.pid)},
       {"download_url", StripUrlQuery(request.download_url)},
       {"fallback_download_url", StripUrlQuery(request.fallback_download_url)},
       {"target_dir", request.target_dir},
       {"restart_exe", request.restart_exe},
       {"require_signed_payload_binaries", request.require_signed_payload_binaries ? "1" : "0"},
       {"trace_log_path", TraceLogPath()}});
  run.progress_window.set_status("Preparing update...", "Creating temporary workspace.", 0);
  const std::string workspace = CreateUpdateWorkspace();
  if (workspace.empty()) {
    return FailRun({request, run.progress_window}, "Cannot create updater temp directory.");
  }
  run.workspace_dir = PathOrEmpty(workspace);
  run.package_path = run.workspace_dir / "update_package.zip";
  run.stage_dir = run.workspace_dir / "stage";
  return std::nullopt;
}

/// True for a file that begins with a local file header (PKWARE application note, 4.3.7).
bool BeginsLikeZip(const fs::Path& path) {
  std::error_code ec;
  fs::File file = fs::OpenForRead(path, ec);
  std::array<char, 4> start{};
  std::size_t filled = 0;
  while (file.is_open() && filled < start.size()) {
    std::size_t read = 0;
    if (!file.Read(start.data() + filled, start.size() - filled, &read, ec) || read == 0) break;
    filled += read;
  }
  return filled == start.size() && start == std::array<char, 4>{'P', 'K', 3, 4};
}

StageResult CheckFormatStage(UpdateRun& run) {
  if (AsciiLower(run.selected_url).ends_with(".zip") || BeginsLikeZip(run.package_path)) {
    return std::nullopt;
  }
  return FailRun({run.request, run.progress_window},
                 "Unsupported update package format. Only .zip packages are supported.");
}

StageResult ExtractStage(UpdateRun& run) {
  run.progress_window.set_status("Extracting update package...",
                                 "Unpacking files into a temporary staging folder.", 100);
  EmitChainEvent("extract_start", {{"package", PathToUtf8(run.package_path)},
                                   {"stage_dir", PathToUtf8(run.stage_dir)}});
  if (!ExtractPackage(run.package_path, run.stage_dir, &run.stage_error,
                      KeepingAlive(&run.progress_window))) {
    EmitChainEvent("extract_fail", {{"error", run.stage_error}});
    return FailRunWithStageError(run, "Cannot extract update package: ");
  }
  if (!ResolvePayloadLayout(run.stage_dir, run.request.required_payload_files, &run.payload_root,
                            &run.stage_error)) {
    EmitChainEvent("extract_fail",
                   {{"error", run.stage_error}, {"reason", "package_layout_contract"}});
    return FailRunWithStageError(run, "Update package contract validation failed: ");
  }
  EmitChainEvent("extract_ok", {{"payload_root", PathToUtf8(run.payload_root)}});
  return std::nullopt;
}

/// The name under which the running updater is about to be replaced; empty when it is not.
std::string_view FindSelfUpdateName(const UpdateRun& run, const fs::Path& target) {
  const fs::Path own = CurrentExecutablePath();
  for (const std::string_view name : {"qorva_updater.exe", "zul_updater.exe"}) {
    std::error_code ec;
    if (fs::KindOf(run.payload_root / name, fs::Links::kFollow, ec) != fs::EntryKind::kRegular) {
      continue;
    }
    const fs::Path installed = fs::WeaklyCanonical(target / name, ec);
    if (ec || own.empty()) continue;
    if (installed == fs::WeaklyCanonical(own, ec) && !ec) return name;
  }
  return {};
}

/// A run that ends before its apply leaves nothing new in the target folder.
void DropNextCopy(UpdateRun& run) {
  if (run.next_copy_path.empty()) return;
  std::error_code ignored;
  fs::Remove(run.next_copy_path, ignored);
}

/// A safety net: a run that was isolated has no file of its own in the target folder.
StageResult StageSelfUpdate(UpdateRun& run) {
  const fs::Path target = PathOrEmpty(run.request.target_dir);
  const std::string_view name = FindSelfUpdateName(run, target);
  if (name.empty()) return std::nullopt;
  run.deferred_target = target / name;
  run.next_copy_path = NextCopyPath(run.deferred_target);
  std::error_code ec;
  if (fs::CopyFileTo(run.payload_root / name, run.next_copy_path, fs::Overwrite::kYes, ec)) {
    return std::nullopt;
  }
  DropNextCopy(run);
  return FailRun({run.request, run.progress_window},
                 "Cannot stage deferred updater self-update copy: target='" +
                     PathToUtf8(run.next_copy_path) + "', " + DescribeSystemError(ec) + ".");
}

StageResult WaitStage(UpdateRun& run) {
  run.progress_window.set_status("Waiting for application to close...",
                                 "The updater will continue automatically.", 100);
  if (WaitForMainProcess(run.request.pid, kMainProcessWaitMs, &run.stage_error, true)) {
    return std::nullopt;
  }
  DropNextCopy(run);
  EmitChainEvent("apply_wait_main_process_fail",
                 {{"error", run.stage_error}, {"pid", std::to_string(run.request.pid)}});
  return FailRunWithStageError(run, {});
}

StageResult ApplyStage(UpdateRun& run) {
  const UpdateRequest& request = run.request;
  run.progress_window.set_status("Installing update...", "Replacing application files safely.",
                                 100);
  EmitChainEvent("apply_start", {{"payload_root", PathToUtf8(run.payload_root)},
                                 {"target_dir", request.target_dir}});
  ApplyCloseContext close_context{&run.progress_window, false};
  const fs::Path target = PathOrEmpty(request.target_dir);
  const bool applied = ApplyStagedUpdate(run.payload_root, target, request.pid, &close_context,
                                         request.require_signed_payload_binaries, &run.stage_error,
                                         &run.apply_result, nullptr);
  run.progress_window.set_force_close_available(false);
  if (!applied) {
    DropNextCopy(run);
    EmitChainEvent(run.apply_result.kind == ApplyOutcomeKind::kRecoveryRequired
                       ? "apply_recovery_required"
                       : "apply_fail",
                   {{"error", run.stage_error},
                    {"target_dir", request.target_dir},
                    {"rollback_backup_root", run.apply_result.backup_root}});
    return FailApply({request, run.progress_window},
                     "Cannot apply update safely: " + run.stage_error, run.selected_url);
  }
  EmitChainEvent("apply_ok", {{"target_dir", request.target_dir}});
  return std::nullopt;
}

/// The application's files are already new at this point, and there is no way back.
StageResult ReplaceSelfStage(UpdateRun& run) {
  if (run.next_copy_path.empty() || run.deferred_target.empty()) return std::nullopt;
  if (ReplaceUpdaterDeferred(run.next_copy_path, run.deferred_target, &run.stage_error)) {
    return std::nullopt;
  }
  DropNextCopy(run);
  EmitChainEvent("apply_fail", {{"error", run.stage_error}, {"reason", "deferred_self_replace"}});
  return FailRunWithStageError(run, "Cannot schedule updater self-update: ");
}

StageResult RestartStage(UpdateRun& run) {
  const UpdateRequest& request = run.request;
  run.progress_window.set_status("Restarting application...", "Update installed. Launching QORVA.",
                                 100);
  const std::string restart_exe = ResolveRestartTarget(request.restart_exe, request.target_dir);
  const std::string arguments = BuildRestartArguments(request);
  EmitChainEvent("restart_start", {{"restart_exe", restart_exe},
                                   {"requested_restart_exe", request.restart_exe},
                                   {"restart_mode", std::string(RestartModeName(request))}});
  if (!LaunchApplication(restart_exe, arguments, &run.stage_error)) {
    EmitChainEvent("restart_fail", {{"error", run.stage_error},
                                    {"restart_exe", restart_exe},
                                    {"requested_restart_exe", request.restart_exe}});
    return FailRunWithStageError(run, {});
  }
  EmitChainEvent("restart_ok",
                 {{"restart_exe", restart_exe}, {"requested_restart_exe", request.restart_exe}});
  return std::nullopt;
}

int CleanUp(UpdateRun& run) {
  std::error_code ignored;
  fs::RemoveTree(run.workspace_dir, ignored, KeepingAlive(&run.progress_window));
  run.progress_window.Destroy();
  return kExitDone;
}

}  // namespace

int RunUpdateDriver(int argc, const wchar_t* const* argv) {
  if (argc < 2) return RunWithoutRequest();
  if (AsksForVersion(argc, argv)) return PrintAppVersion();

  UpdateRun run(ParseUpdateRequest(argc, argv));
  constexpr std::array kStages = {
      ValidateStage,    RefuseArchiveModeStage, IsolateHelperStage, PrepareStage, FetchPackage,
      CheckFormatStage, ExtractStage,           StageSelfUpdate,    WaitStage,    ApplyStage,
      ReplaceSelfStage, RestartStage,
  };
  for (const auto stage : kStages) {
    if (const StageResult exit_code = stage(run)) return *exit_code;
  }
  return CleanUp(run);
}

}  // namespace zul
