#pragma once

// The life of diagnostics in a process: InitDiagnostics at its start; EnqueueReport and
// StartDiagnosticsSession at each failure; ShutdownDiagnostics at its orderly end after a failure.
// None of them throws, fails its caller or stops an update.
//
// Diagnostics has not started, has started (log and crash observer run), has a session (from the
// first failure on), or has finished. A process that dies with a session leaves its session file,
// which the next process that fails reports. A run that succeeds has no session and no report.

#include <functional>
#include <string>

#include "collector/collector.h"
#include "core/path.h"
#include "diagnostics/report_manifest.h"

namespace zul {

struct DiagnosticsConfig {
  std::string display_name = "QORVA";   ///< UTF-8, of the program
  std::string log_base_name = "qorva";  ///< UTF-8, stem of the log file; empty means "qorva"
  fs::Path data_root_override;          ///< replaces the user's data folder; empty means none
  bool upload_enabled = true;           ///< whether this process may upload reports
};

/// What InitDiagnostics chose and found. Paths are UTF-8.
struct DiagnosticsState {
  bool compact_collector_ready = false;
  std::string compact_collector_error;  ///< a reason word when not ready
  bool install_dir_logging = false;     ///< the log is in the installation
  bool crash_directory_fallback_used = false;
  bool upload_enabled = true;
  std::string executable_path;
  std::string install_directory;
  std::string logs_directory;
  std::string log_file_path;  ///< empty when the log could not be opened
  std::string crash_directory;
};

/// Chooses the folders, opens the log, starts the crash observer and publishes the state. Blocks
/// for as long as StartCompactCollector.
DiagnosticsState InitDiagnostics(const DiagnosticsConfig& config);

/// The process that InitDiagnostics runs in.
struct DiagnosticsSurroundings {
  fs::Path executable;        ///< empty when unknown
  fs::Path application_data;  ///< the user's folder for roaming data; empty when there is none
  std::function<CollectorStartResult(const fs::Path& crash_directory,
                                     const fs::Path& install_directory)>
      start_collector;
};

/// InitDiagnostics in the given surroundings.
DiagnosticsState InitDiagnosticsIn(const DiagnosticsSurroundings& surroundings,
                                   const DiagnosticsConfig& config);

/// A copy of the published state; the defaults before InitDiagnostics. Thread-safe.
[[nodiscard]] DiagnosticsState GetDiagnosticsState();

/// Queues a report and, unless its kind is "crash", starts the upload. Thread-safe.
void EnqueueReport(const ReportRequest& request);

/// Recovers what earlier processes left, begins this process's session and starts the upload. While
/// a session is active, recovers again and uploads only.
void StartDiagnosticsSession();

/// Declares an orderly end to the observer, stops the upload and ends the session. Waits at most
/// 15 s for the upload; then cancels it and waits for the request in progress.
void ShutdownDiagnostics();

}  // namespace zul
