#pragma once

// What this process was last known to be doing, in a small file on disk. A process that ends
// cleanly deletes it; a file that outlives its process says that the process died. A second,
// bounded copy goes into the process's compact session folder, beside the observer's records.
//
// Nothing here fails to its caller otherwise than by what it returns, and nothing throws.
// docs/formats/session.md has the keys.

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/file_layer.h"

namespace zul {

/// Ordered keys and values, UTF-8.
using DiagnosticFields = std::vector<std::pair<std::string, std::string>>;

/// The folder of all session files in a crash folder.
[[nodiscard]] fs::Path SessionStateDirectory(const fs::Path& crash_directory);

/// Begins the session and writes its first checkpoint. Nothing without a crash folder or while a
/// session is active.
void StartSession();

/// Adds a step to the session's ring of 64, sanitised and bounded; a repeat of the newest is not
/// added. From any thread; nothing without a session.
void AddBreadcrumb(std::string event, DiagnosticFields fields);

/// Writes the checkpoint when it is due, or at once when `force`. False only when the session file
/// could not be written; true without a session. From one thread at a time.
bool WriteSessionCheckpoint(bool force);

/// Writes a last checkpoint with the reason ("clean_shutdown" when absent) and deletes the session
/// file.
void FinishDiagnosticsSession(const std::optional<std::string>& reason);

/// The breadcrumbs of the active session as an array for a report, oldest first.
[[nodiscard]] nlohmann::json SessionBreadcrumbs();

/// The `app` object of sessions and reports: build, collector state, and what there is of the
/// executable and the log, never their paths.
[[nodiscard]] nlohmann::json AppObject();

}  // namespace zul
