#pragma once

// The life of diagnostics in a process: one call at its start, one at the first failure, one at its
// orderly end. Nothing here ever fails to its caller or stops an update.

#include <string>

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

/// Chooses the folders, opens the log, starts the crash observer and publishes the state.
DiagnosticsState InitDiagnostics(const DiagnosticsConfig& config);

/// A copy of the state, from any thread; defaults before the start.
[[nodiscard]] DiagnosticsState GetDiagnosticsState();

/// After the first failure: recovers what earlier processes left, starts this run's session and the
/// upload. A second call recovers again and changes nothing else.
void StartDiagnosticsSession();

/// The orderly end: declares the exit, stops the upload (waiting at most 15 s, then for the request
/// in flight) and removes the session.
void ShutdownDiagnostics();

}  // namespace zul
