#pragma once

// The files of reports: the text that a report takes up, its artifacts, and the queue, a flat
// folder with one JSON file a report.

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "core/file_layer.h"

namespace zul {

/// How a session or report describes a file: `present`, `extension` and `size_bytes`, never its
/// name or folder. For an empty path `present` alone, false. A file whose size is unavailable has 0
/// bytes, and the failure is logged.
[[nodiscard]] nlohmann::json ArtifactMetadata(const fs::Path& path);

/// The start of a report's text file, at most 131072 bytes. A longer file gives whole lines, unless
/// it consists of one. Empty for an empty path or a missing file; another failure is logged.
[[nodiscard]] std::string ReadReportText(const fs::Path& path);

/// The end of an update trace, at most 131072 bytes in whole lines: the newest events, since the
/// trace of all runs only grows. Begins with the first of these lines that contains `run_id`, if
/// any does. Empty and logged as above.
[[nodiscard]] std::string ReadTraceText(const fs::Path& trace, std::string_view run_id);

/// Writes a new text file. False, with a failure line of `label`, when the name exists or the file
/// cannot be written; nothing of it stays then.
[[nodiscard]] bool WriteReportText(const fs::Path& path, std::string_view text,
                                   std::string_view label);

/// The queue: <crash folder>/pending_reports.
[[nodiscard]] fs::Path PendingReportsDirectory(const fs::Path& crash_directory);

/// Adds a manifest to the queue under a new name, which `*file_name` receives (may be null). A
/// reader finds the file whole or not at all. A failure is logged.
[[nodiscard]] bool WriteManifestFile(const fs::Path& crash_directory,
                                     const nlohmann::json& manifest, std::string* file_name);

/// Logs that the report with this file name is in the queue.
void LogReportQueued(std::string_view file_name);

/// The reports in a queue, sorted by name. Empty when the folder cannot be listed.
[[nodiscard]] std::vector<fs::Path> ListReports(const fs::Path& queue);

/// True while the report is in its queue. A delivered report is gone.
[[nodiscard]] bool IsQueued(const fs::Path& report);

}  // namespace zul
