#include "diagnostics/diagnostics.h"

#include <chrono>
#include <mutex>
#include <thread>
#include <utility>

#include "core/logger.h"
#include "core/process_environment.h"
#include "core/text.h"
#include "diagnostics/diagnostic_names.h"
#include "diagnostics/report_upload.h"
#include "diagnostics/session_checkpoint.h"
#include "diagnostics/session_recovery.h"

namespace zul {

namespace {

constexpr std::chrono::milliseconds kUploadDrain{15000};

// Several processes may start at once and probe the same folder; one that removes its probe while
// another opens it makes the other wait for the name.
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

/// Whether a file can be opened for writing there. Whether it can be written does not count: a full
/// disk today is a usable folder tomorrow.
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
  fs::Path path;  ///< may not be writable when neither place is; every writer reports its failure
  bool primary_usable = false;
};

ProbedDirectory WriteProbeDirectory(const fs::Path& primary, const fs::Path& fallback) {
  if (MakeDirectory(primary) && CanOpenForWriting(primary)) return {primary, true};
  if (MakeDirectory(fallback)) return {fallback, false};
  return {primary.empty() ? fallback : primary, false};
}

/// Logs prefer the installation, where whoever has it at hand looks for them; evidence of crashes
/// prefers the user's own folder, where no other user reads it.
void ChooseDirectories(const DiagnosticsConfig& config, const fs::Path& data_root,
                       const fs::Path& install_directory, DiagnosticsState* state) {
  const bool overridden = !config.data_root_override.empty();
  const ProbedDirectory logs = overridden
                                   ? WriteProbeDirectory(data_root / "logs", {})
                                   : WriteProbeDirectory(JoinUnlessEmpty(install_directory, "logs"),
                                                         JoinUnlessEmpty(data_root, "logs"));
  // Without a data folder this is below the current folder.
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
    GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kWarn,
                    "Compact crash diagnostics unavailable: collector initialization failed.");
    return;
  }
  if (state->compact_collector_ready) return;
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kWarn,
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
  // From here on there are real paths, also for whatever crashes during the rest.
  Publish(*state);
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kInfo, "Diagnostics initialized: log='",
                  state->log_file_path, "', crash_dir='", state->crash_directory,
                  "', install_dir_logging=", state->install_dir_logging ? "true" : "false");
  StartCollector(surroundings, install_directory, state);
  Publish(*state);
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

void StartDiagnosticsSession() {
  const fs::Path crash_directory = PathOrEmpty(GetDiagnosticsState().crash_directory);
  // Recovery comes before this process has a session of its own, and the upload after it, so that
  // it sends what was recovered.
  if (!crash_directory.empty()) {
    RunGuarded("compact recovery", [&] { RecoverCompactEvidence(crash_directory); });
    RunGuarded("crash dump recovery", [&] { RecoverOrphanDumps(crash_directory); });
    RunGuarded("session recovery", [&] {
      const std::size_t count = RecoverSessions(crash_directory);
      if (count == 0) return;
      GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kInfo, "Diagnostics recovered ",
                      std::to_string(count), " unfinished session(s).");
    });
  }
  StartSession();
  if (GetDiagnosticsState().upload_enabled) StartUploadWorker();
}

void ShutdownDiagnostics() {
  // First of all, before anything can still go wrong.
  RecordProcessExitCode(0);
  AddBreadcrumb("diagnostics_shutdown_started", {});
  WriteSessionCheckpoint(true);
  StopUploadWorker(kUploadDrain);
  FinishDiagnosticsSession("clean_shutdown");
}

}  // namespace zul
