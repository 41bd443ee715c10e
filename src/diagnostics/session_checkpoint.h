#pragma once

// The session of this process: a small file that says what the process was last known to be doing.
// A process that ends cleanly deletes its file; a file without a living process shows that the
// process died. The process's evidence folder, if there is one, holds a bounded copy beside the
// observer's records. docs/formats/session.md lists the keys.
//
// A process has no session, one session with any number of checkpoints, and none again after its
// end. A process that dies leaves its last checkpoint. No function throws; failures are logged.

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "core/path.h"
#include "diagnostics/field_text.h"

namespace zul {

/// The folder of the session files in a crash folder.
[[nodiscard]] fs::Path SessionStateDirectory(const fs::Path& crash_directory);

/// Begins the session and writes its first checkpoint. `describe_app` gives the `app` object of
/// each checkpoint. Does nothing for an empty crash folder or while a session is active.
void StartSession(const fs::Path& crash_directory, std::function<nlohmann::json()> describe_app);

/// Adds a step, sanitised and bounded, to the latest 64 of the session. Ignores a repeat of the
/// newest step, and any step without a session. Thread-safe.
void AddBreadcrumb(std::string event, DiagnosticFields fields);

/// Writes a checkpoint. False only when the session file could not be written; the old file then
/// stays. True without a session. For one thread at a time; blocks for the disk.
bool WriteSessionCheckpoint();

/// Ends the session: writes a last checkpoint with the reason ("clean_shutdown" by default), and
/// deletes the session file. Does nothing without a session.
void FinishDiagnosticsSession(const std::optional<std::string>& reason);

/// The steps of the active session as the `breadcrumbs` of a report, oldest first. Thread-safe.
[[nodiscard]] nlohmann::json SessionBreadcrumbs();

}  // namespace zul
