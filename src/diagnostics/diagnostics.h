#pragma once

// The life of diagnostics in a process: one call at its start, one at the first failure, one at its
// orderly end. Nothing here ever fails to its caller or stops an update.
//
// Not started; started (log and crash observer); session running, from the first failure on;
// finished. A process that dies while its session runs leaves the session's file, and the next
// process that fails reports it. A run that succeeds never has a session.

#include <functional>
#include <string>

#include "collector/collector.h"
#include "core/file_layer.h"

namespace zul {

struct DiagnosticsConfig {
  std::string display_name = "QORVA";   ///< UTF-8, of the program
  std::string log_base_name = "qorva";  ///< UTF-8, stem of the log file; empty means "qorva"
  fs::Path data_root_override;          ///< instead of the user's data folder; empty for none
  bool upload_enabled = true;           ///< whether this process may send reports
};

/// What the start found out. Paths are UTF-8.
struct DiagnosticsState {
  bool compact_collector_ready = false;
  std::string compact_collector_error;  ///< a reason word when not ready
  bool install_dir_logging = false;     ///< logs live in the installation
  bool crash_directory_fallback_used = false;
  bool upload_enabled = true;
  std::string executable_path;
  std::string install_directory;
  std::string logs_directory;
  std::string log_file_path;  ///< empty when the log could not be opened
  std::string crash_directory;
};

/// Chooses the folders, opens the log, starts the crash observer and publishes the state. Blocks as
/// StartCompactCollector does.
DiagnosticsState InitDiagnostics(const DiagnosticsConfig& config);

/// Where a process runs, and how it gets its observer.
struct DiagnosticsSurroundings {
  fs::Path executable;        ///< empty when not known
  fs::Path application_data;  ///< the user's folder for roaming data; empty when there is none
  std::function<CollectorStartResult(const fs::Path& crash_directory,
                                     const fs::Path& install_directory)>
      start_collector;
};

/// InitDiagnostics in given surroundings.
DiagnosticsState InitDiagnosticsIn(const DiagnosticsSurroundings& surroundings,
                                   const DiagnosticsConfig& config);

/// A copy of the state, from any thread; defaults before the start.
[[nodiscard]] DiagnosticsState GetDiagnosticsState();

/// After the first failure: recovers what earlier processes left, starts this run's session and the
/// upload. A second call recovers again and changes nothing else.
void StartDiagnosticsSession();

/// The orderly end: declares the exit, stops the upload (waiting at most 15 s, then for the request
/// in flight) and removes the session.
void ShutdownDiagnostics();

}  // namespace zul
