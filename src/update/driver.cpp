#include "update/driver.h"

#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "apply/self_replace.h"
#include "core/build_identity.h"
#include "core/file_layer.h"
#include "core/private_folder.h"
#include "core/system_error.h"
#include "core/text.h"
#include "package/extract.h"
#include "package/layout.h"
#include "trace/chain_events.h"
#include "transfer/url_policy.h"
#include "update/update_run.h"
#include "update/validate_request.h"

namespace zul {

namespace {

constexpr std::uint32_t kMainProcessWaitMs = 180000;

StageResult ValidateStage(UpdateRun& run) {
  std::string error;
  if (ValidateUpdateRequest(run.request, &error)) return std::nullopt;
  return FailRun(run, error.empty() ? "Updater arguments are invalid." : error, "validate");
}

StageResult RefuseArchiveModeStage(UpdateRun& run) {
  const InstallClassification target = ClassifyInstallTarget(run.request.restart_exe);
  if (!target.is_archive) return std::nullopt;
  return RefuseArchiveMode(run,
                           "QORVA archive mode requires installer migration; reject normal "
                           "portable update package for archive mode; target reason: " +
                               target.reason);
}

/// An updater that runs from the folder that it must update hands over to a copy outside.
StageResult IsolateHelperStage(UpdateRun& run) {
  bool relaunched = false;
  std::string error;
  if (!run.world.relaunch_from_target_if_needed(run.request, &relaunched, &error)) {
    return FailRun(run,
                   error.empty() ? "Cannot relaunch updater helper outside the update target "
                                   "directory."
                                 : error,
                   "isolate_helper");
  }
  if (!relaunched) return std::nullopt;
  run.world.shutdown_diagnostics();
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
  PrivateFolder workspace = CreatePrivateFolder("qorva_updater_");
  run.workspace_dir = workspace.path;
  run.workspace_hold = std::move(workspace.hold);
  if (run.workspace_dir.empty()) return FailRun(run, "Cannot create updater temp directory.");
  run.package_path = run.workspace_dir / "update_package.zip";
  run.stage_dir = run.workspace_dir / "stage";
  return std::nullopt;
}

/// True for a file that begins with a local file header (PKWARE application note, 4.3.7).
bool BeginsLikeZip(fs::File& file) {
  std::error_code ec;
  std::array<char, 4> start{};
  std::size_t read = 0;
  return fs::ReadUpTo(file, 0, start.data(), start.size(), &read, ec) && read == start.size() &&
         start == std::array<char, 4>{'P', 'K', 3, 4};
}

StageResult CheckFormatStage(UpdateRun& run) {
  if (AsciiLower(run.selected_url).ends_with(".zip") || BeginsLikeZip(run.package)) {
    return std::nullopt;
  }
  return FailRun(run, "Unsupported update package format. Only .zip packages are supported.");
}

StageResult ExtractStage(UpdateRun& run) {
  run.progress_window.set_status("Extracting update package...",
                                 "Unpacking files into a temporary staging folder.", 100);
  EmitChainEvent("extract_start", {{"package", PathToUtf8(run.package_path)},
                                   {"stage_dir", PathToUtf8(run.stage_dir)}});
  const bool extracted = ExtractPackage(run.package_path, run.stage_dir, &run.stage_error,
                                        KeepingAlive(&run.progress_window));
  run.package = {};
  if (!extracted) {
    EmitChainEvent("extract_fail", {{"error", run.stage_error}});
    return FailRun(run, "Cannot extract update package: " + run.stage_error);
  }
  if (!ResolvePayloadLayout(run.stage_dir, run.request.required_payload_files, &run.payload_root,
                            &run.stage_error)) {
    EmitChainEvent("extract_fail",
                   {{"error", run.stage_error}, {"reason", "package_layout_contract"}});
    return FailRun(run, "Update package contract validation failed: " + run.stage_error);
  }
  EmitChainEvent("extract_ok", {{"payload_root", PathToUtf8(run.payload_root)}});
  return std::nullopt;
}

/// The name under which this run would replace the running updater; empty when it would not.
std::string_view FindSelfUpdateName(const UpdateRun& run, const fs::Path& target) {
  std::error_code ec;
  const fs::Path own = fs::WeaklyCanonical(run.world.own_executable, ec);
  if (ec) return {};
  for (const std::string_view name : {"qorva_updater.exe", "zul_updater.exe"}) {
    if (!fs::IsRegularFile(run.payload_root / name)) continue;
    if (fs::WeaklyCanonical(target / name, ec) == own && !ec) return name;
  }
  return {};
}

/// A safety net: an isolated run has no file of its own in the target folder.
StageResult StageSelfUpdate(UpdateRun& run) {
  const fs::Path target = PathOrEmpty(run.request.target_dir);
  const std::string_view name = FindSelfUpdateName(run, target);
  if (name.empty()) return std::nullopt;
  run.deferred_target = target / name;
  run.next_copy_path = NextCopyPath(run.deferred_target);
  std::error_code ec;
  bool copied = false;
  RunKeepingAlive([&] { copied = fs::CopyFileTo(run.payload_root / name, run.next_copy_path, ec); },
                  KeepingAlive(&run.progress_window));
  if (copied) return std::nullopt;
  return FailRun(run, "Cannot stage deferred updater self-update copy: target='" +
                          PathToUtf8(run.next_copy_path) + "', " + DescribeSystemError(ec) + ".");
}

StageResult WaitStage(UpdateRun& run) {
  run.progress_window.set_status("Waiting for application to close...",
                                 "The updater will continue automatically.", 100);
  if (run.request.pid != 0) run.progress_window.give_way_to({run.request.pid});
  const bool ended =
      run.world.wait_for_main_process(run.request.pid, kMainProcessWaitMs, &run.stage_error, true);
  run.progress_window.give_way_to({});
  if (ended) return std::nullopt;
  EmitChainEvent("apply_wait_main_process_fail",
                 {{"error", run.stage_error}, {"pid", std::to_string(run.request.pid)}});
  return FailRun(run, run.stage_error);
}

StageResult ApplyStage(UpdateRun& run) {
  const UpdateRequest& request = run.request;
  run.progress_window.set_status("Installing update...", "Replacing application files safely.",
                                 100);
  EmitChainEvent("apply_start", {{"payload_root", PathToUtf8(run.payload_root)},
                                 {"target_dir", request.target_dir}});
  ApplyCloseContext close_context{&run.progress_window, false};
  const fs::Path target = PathOrEmpty(request.target_dir);
  const bool applied = run.world.apply_staged_update(
      run.payload_root, target, request.pid, &close_context,
      request.require_signed_payload_binaries, &run.stage_error, &run.apply_result, nullptr);
  run.progress_window.set_force_close_available(false);
  if (!applied) {
    EmitChainEvent(run.apply_result.kind == ApplyOutcomeKind::kRecoveryRequired
                       ? "apply_recovery_required"
                       : "apply_fail",
                   {{"error", run.stage_error},
                    {"target_dir", request.target_dir},
                    {"rollback_backup_root", run.apply_result.backup_root}});
    return FailApply(run, "Cannot apply update safely: " + run.stage_error);
  }
  EmitChainEvent("apply_ok", {{"target_dir", request.target_dir}});
  return std::nullopt;
}

/// From here on the application's files are new, and a failure does not bring the old ones back.
StageResult ReplaceSelfStage(UpdateRun& run) {
  if (run.next_copy_path.empty() || run.deferred_target.empty()) return std::nullopt;
  if (!run.world.replace_updater_deferred(run.next_copy_path, run.deferred_target,
                                          &run.stage_error)) {
    EmitChainEvent("apply_fail", {{"error", run.stage_error}, {"reason", "deferred_self_replace"}});
    return FailRun(run, "Cannot schedule updater self-update: " + run.stage_error);
  }
  // The copy may wait for the next start of the system: a later failure must not remove it.
  run.next_copy_path.clear();
  return std::nullopt;
}

/// The argument text for the restarted application: empty, or, in a headless run, the instruction
/// to write its version as JSON into the target folder. This process never reads that file.
std::string BuildRestartArguments(const UpdateRequest& request) {
  if (!request.headless_restart_version_proof) return {};
  const fs::Path proof = PathOrEmpty(request.target_dir) / ".qorva_update_restart_proof.json";
  return "--write-app-version-json \"" + PathToUtf8(proof) + "\"";
}

StageResult RestartStage(UpdateRun& run) {
  const UpdateRequest& request = run.request;
  run.progress_window.set_status("Restarting application...", "Update installed. Launching QORVA.",
                                 100);
  const std::string restart_exe = ResolveRestartTarget(request.restart_exe, request.target_dir);
  EmitChainEvent("restart_start",
                 {{"restart_exe", restart_exe},
                  {"requested_restart_exe", request.restart_exe},
                  {"restart_mode", request.headless_restart_version_proof ? "headless_version_proof"
                                                                          : "normal_gui"}});
  // The application may find the next update at once. What this run still does is not in its
  // folder.
  run.claim.Release();
  bool launched = false;
  // Scanners read a new program before they let it start.
  RunKeepingAlive(
      [&] {
        launched = run.world.launch_application(restart_exe, BuildRestartArguments(request),
                                                &run.stage_error);
      },
      KeepingAlive(&run.progress_window));
  if (!launched) {
    EmitChainEvent("restart_fail", {{"error", run.stage_error},
                                    {"restart_exe", restart_exe},
                                    {"requested_restart_exe", request.restart_exe}});
    return FailRun(run, run.stage_error);
  }
  EmitChainEvent("restart_ok",
                 {{"restart_exe", restart_exe}, {"requested_restart_exe", request.restart_exe}});
  return std::nullopt;
}

int CleanUp(UpdateRun& run) {
  std::error_code ignored;
  run.workspace_hold = {};
  fs::RemoveTree(run.workspace_dir, ignored, KeepingAlive(&run.progress_window));
  run.progress_window.Destroy();
  return kExitDone;
}

}  // namespace

bool AsksForVersion(int argc, const wchar_t* const* argv) {
  for (int i = 1; i < argc; ++i) {
    if (argv[i] != nullptr && std::wstring_view(argv[i]) == L"--print-app-version-json") {
      return true;
    }
  }
  return false;
}

int RunUpdateDriver(const UpdateWorld& world, int argc, const wchar_t* const* argv) {
  if (argc < 2) return RunWithoutRequest(world);
  if (AsksForVersion(argc, argv)) {
    world.print(BuildAppVersionJson() + "\n");
    return kExitDone;
  }

  UpdateRun run(world, ParseUpdateRequest(argc, argv));
  constexpr std::array kStages = {
      ValidateStage, RefuseArchiveModeStage, IsolateHelperStage, ClaimTarget,     PrepareStage,
      FetchPackage,  CheckFormatStage,       ExtractStage,       StageSelfUpdate, WaitStage,
      ApplyStage,    ReplaceSelfStage,       RestartStage,
  };
  for (const auto stage : kStages) {
    if (const StageResult exit_code = stage(run)) return *exit_code;
  }
  return CleanUp(run);
}

}  // namespace zul
