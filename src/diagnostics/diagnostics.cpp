#include "diagnostics/diagnostics.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>
#include <utility>

#include "core/build_identity.h"
#include "core/file_layer.h"
#include "core/logger.h"
#include "core/process_environment.h"
#include "core/text.h"
#include "diagnostics/diagnostics_log.h"
#include "diagnostics/recovery.h"
#include "diagnostics/report_files.h"
#include "diagnostics/report_upload.h"
#include "diagnostics/session_checkpoint.h"
#include "diagnostics/upload_worker.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::chrono::milliseconds kUploadDrain{15000};
constexpr std::size_t kLogTailLines = 400;

// Processes that start at the same time probe the same folder. While one removes its probe, another
// cannot open the file of that name and tries again.
constexpr int kProbeAttempts = 20;
constexpr std::chrono::milliseconds kProbePause{5};

struct PublishedState {
  std::mutex mutex;
  DiagnosticsState state;
};

PublishedState& Published() {
  // Never destroyed: the upload thread may still read it while the process ends.
  static PublishedState& published = *new PublishedState;
  return published;
}

void Publish(const DiagnosticsState& state) {
  const std::scoped_lock lock(Published().mutex);
  Published().state = state;
}

fs::Path JoinUnlessEmpty(const fs::Path& folder, std::string_view name) {
  return folder.empty() ? fs::Path() : folder / name;
}

bool MakeDirectory(const fs::Path& path) {
  std::error_code ec;
  return !path.empty() && fs::CreateDirectories(path, ec);
}

/// Whether a file in the folder can be opened for writing. A failing write does not count: a full
/// disk may have room later.
bool CanOpenForWriting(const fs::Path& directory) {
  const fs::Path probe = directory / ".write_probe";
  for (int attempt = 1;; ++attempt) {
    std::error_code ec;
    fs::File file = fs::OpenForAppend(probe, ec);
    if (file.is_open()) {
      static_cast<void>(fs::WriteAll(file, "ok", 2, ec));
      static_cast<void>(file.Close(ec));
      fs::Remove(probe, ec);
      return true;
    }
    const bool another_probes =
        fs::KindOf(probe, fs::Links::kDoNotFollow, ec) == fs::EntryKind::kRegular;
    if (!another_probes || attempt == kProbeAttempts) return false;
    std::this_thread::sleep_for(kProbePause);
  }
}

struct ProbedDirectory {
  fs::Path path;  ///< not writable if neither folder is; each writer then reports its failure
  bool primary_usable = false;
};

ProbedDirectory WriteProbeDirectory(const fs::Path& primary, const fs::Path& fallback) {
  if (MakeDirectory(primary) && CanOpenForWriting(primary)) return {primary, true};
  if (MakeDirectory(fallback)) return {fallback, false};
  return {primary.empty() ? fallback : primary, false};
}

/// Logs prefer the installation, where support looks for them. Evidence of crashes prefers the
/// user's own folder, which no other user can read.
void ChooseDirectories(const DiagnosticsConfig& config, const fs::Path& data_root,
                       const fs::Path& install_directory, DiagnosticsState* state) {
  const bool overridden = !config.data_root_override.empty();
  const ProbedDirectory logs = overridden
                                   ? WriteProbeDirectory(data_root / "logs", {})
                                   : WriteProbeDirectory(JoinUnlessEmpty(install_directory, "logs"),
                                                         JoinUnlessEmpty(data_root, "logs"));
  // Without a data folder, `data_root` is empty and this is below the current folder.
  const ProbedDirectory crashes =
      WriteProbeDirectory(data_root / "crashes", JoinUnlessEmpty(install_directory, "crashes"));
  state->install_dir_logging = !overridden && logs.primary_usable;
  state->crash_directory_fallback_used = !crashes.primary_usable;
  state->logs_directory = PathToUtf8(logs.path);
  state->crash_directory = PathToUtf8(crashes.path);
}

void OpenLog(const DiagnosticsConfig& config, DiagnosticsState* state) {
  const std::string stem = config.log_base_name.empty() ? "qorva" : config.log_base_name;
  if (GetLogger().Configure(state->logs_directory, stem)) {
    state->log_file_path = GetLogger().CurrentPath();
  }
  GetLogger().ApplyFilterFromEnvironment();
}

void StartCollector(const DiagnosticsSurroundings& surroundings, const fs::Path& install_directory,
                    DiagnosticsState* state) {
  const fs::Path crash_directory = PathOrEmpty(state->crash_directory);
  try {
    CollectorStartResult result = surroundings.start_collector(crash_directory, install_directory);
    state->compact_collector_ready = result.ready;
    state->compact_collector_error = std::move(result.failure_reason);
  } catch (...) {
    state->compact_collector_error = "collector_initialization_failed";
    LogDiagnostics(LogLevel::kWarn,
                   "Compact crash diagnostics unavailable: collector initialization failed.");
    return;
  }
  if (state->compact_collector_ready) return;
  LogDiagnostics(LogLevel::kWarn,
                 "Compact crash diagnostics unavailable: ", state->compact_collector_error,
                 ". Process exit cause and stack capture are not guaranteed.");
}

void Start(const DiagnosticsSurroundings& surroundings, const DiagnosticsConfig& config,
           DiagnosticsState* state) {
  const fs::Path install_directory = surroundings.executable.parent_path();
  const fs::Path data_root = config.data_root_override.empty()
                                 ? JoinUnlessEmpty(surroundings.application_data, "QORVA")
                                 : config.data_root_override;
  state->executable_path = PathToUtf8(surroundings.executable);
  state->install_directory = PathToUtf8(install_directory);
  state->upload_enabled = config.upload_enabled;
  ChooseDirectories(config, data_root, install_directory, state);
  OpenLog(config, state);
  // Published before the collector starts, for a crash during that start.
  Publish(*state);
  LogDiagnostics(LogLevel::kInfo, "Diagnostics initialized: log='", state->log_file_path,
                 "', crash_dir='", state->crash_directory,
                 "', install_dir_logging=", state->install_dir_logging ? "true" : "false");
  StartCollector(surroundings, install_directory, state);
  Publish(*state);
}

/// The `app` object of sessions and reports: never the path of a file.
json DescribeApp() {
  const DiagnosticsState state = GetDiagnosticsState();
  const BuildIdentity build = GetBuildIdentity();
  return {{"app_name", "QORVA"},
          {"version", build.version},
          {"build_id", build.build_id},
          {"channel", build.channel},
          {"platform", build.platform},
          {"arch", build.arch},
          {"compact_collector_ready_at_start", state.compact_collector_ready},
          {"compact_collector_error", state.compact_collector_error},
          {"exe", ArtifactMetadata(PathOrEmpty(state.executable_path))},
          {"log", ArtifactMetadata(PathOrEmpty(GetLogger().CurrentPath()))}};
}

/// The facts of a report that this process makes now.
ReportFacts GatherReportFacts(const ReportRequest& request) {
  const fs::Path log = PathOrEmpty(GetDiagnosticsState().log_file_path);
  return {.created_at_local = LocalTimeText(),
          .app = DescribeApp(),
          .breadcrumbs = SessionBreadcrumbs(),
          .artifacts = {{"report", ArtifactMetadata(request.report_file)},
                        {"dump", ArtifactMetadata(request.dump_file)},
                        {"log", ArtifactMetadata(log)}},
          .report_file_text = request.trace_run_id.empty()
                                  ? ReadReportText(request.report_file)
                                  : ReadTraceText(request.report_file, request.trace_run_id)};
}

RecoverySurroundings RecoveryHere(const fs::Path& crash_directory) {
  return {.crash_directory = crash_directory, .facts = GatherReportFacts, .log_tail = [] {
            return LogTail{GetLogger().CurrentPath(), GetLogger().RecentLines(kLogTailLines)};
          }};
}

/// The file names of the reports that this process has queued about itself.
class OwnReports {
 public:
  void Add(std::string file_name) {
    const std::scoped_lock lock(mutex_);
    names_.insert(std::move(file_name));
  }
  [[nodiscard]] std::set<std::string> Names() const {
    const std::scoped_lock lock(mutex_);
    return names_;
  }

 private:
  mutable std::mutex mutex_;
  std::set<std::string> names_;
};

OwnReports& Own() {
  // Never destroyed: the upload thread may still read it while the process ends.
  static OwnReports& own = *new OwnReports;
  return own;
}

void UploadQueuedReports(const std::atomic<bool>& cancel) {
  static TriedReports tried;  // used by one worker at a time
  const fs::Path crash_directory = PathOrEmpty(GetDiagnosticsState().crash_directory);
  if (crash_directory.empty()) return;
  DrainReportQueue(PendingReportsDirectory(crash_directory), Own().Names(), cancel,
                   net::SendHttpRequest, &tried);
}

UploadWorker& ProcessUploadWorker() {
  // Never destroyed: the process may end without ShutdownDiagnostics while the worker runs.
  static UploadWorker& worker = *new UploadWorker(UploadQueuedReports);
  return worker;
}

void StartUploadWorker() {
  RunGuarded("background uploader start", [] { ProcessUploadWorker().Start(); });
}

void StopUploadWorker(std::chrono::milliseconds timeout) {
  RunGuarded("background uploader stop", [&] { ProcessUploadWorker().Stop(timeout); });
}

void Enqueue(const ReportRequest& request) {
  const DiagnosticsState state = GetDiagnosticsState();
  const json manifest = BuildReportManifest(request, GatherReportFacts(request));
  std::string file_name;
  if (!WriteManifestFile(PathOrEmpty(state.crash_directory), manifest, &file_name)) return;
  if (request.kind == "crash") return;  // the start that recovers a crash also starts the upload
  LogReportQueued(file_name);
  Own().Add(std::move(file_name));
  if (state.upload_enabled) {
    StartUploadWorker();
  } else {
    LogDiagnostics(LogLevel::kInfo,
                   "Diagnostics server upload is disabled for this isolated process; report "
                   "retained locally.");
  }
}

}  // namespace

DiagnosticsState InitDiagnosticsIn(const DiagnosticsSurroundings& surroundings,
                                   const DiagnosticsConfig& config) {
  DiagnosticsState state;
  RunGuarded("start", [&] { Start(surroundings, config, &state); });
  return state;
}

DiagnosticsState InitDiagnostics(const DiagnosticsConfig& config) {
  DiagnosticsSurroundings surroundings;
  RunGuarded("start", [&] {
    std::uint32_t ignored_hresult = 0;
    surroundings = {
        .executable = CurrentExecutablePath(),
        .application_data = RoamingAppDataDirectory(&ignored_hresult).value_or(fs::Path()),
        .start_collector = StartCompactCollector};
  });
  return InitDiagnosticsIn(surroundings, config);
}

DiagnosticsState GetDiagnosticsState() {
  const std::scoped_lock lock(Published().mutex);
  return Published().state;
}

void EnqueueReport(const ReportRequest& request) {
  RunGuarded("enqueue report", [&] { Enqueue(request); });
}

void StartDiagnosticsSession() {
  const fs::Path crash_directory = PathOrEmpty(GetDiagnosticsState().crash_directory);
  // Recovery comes before this process's own session, so that a process never reports itself, and
  // before the upload, so that the upload includes what was recovered.
  if (!crash_directory.empty()) {
    const RecoverySurroundings here = RecoveryHere(crash_directory);
    RunGuarded("compact recovery", [&] { RecoverCompactEvidence(here); });
    RunGuarded("crash dump recovery", [&] { RecoverOrphanDumps(here); });
    RunGuarded("session recovery", [&] {
      const std::size_t count = RecoverSessions(here);
      if (count == 0) return;
      LogDiagnostics(LogLevel::kInfo, "Diagnostics recovered ", std::to_string(count),
                     " unfinished session(s).");
    });
  }
  StartSession(crash_directory, DescribeApp);
  if (GetDiagnosticsState().upload_enabled) StartUploadWorker();
}

void ShutdownDiagnostics() {
  // First, because a later step may fail.
  RecordProcessExitCode(0);
  AddBreadcrumb("diagnostics_shutdown_started", {});
  WriteSessionCheckpoint();
  StopUploadWorker(kUploadDrain);
  FinishDiagnosticsSession("clean_shutdown");
}

}  // namespace zul
