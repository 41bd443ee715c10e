#pragma once

// A report: one JSON file in the pending queue, the only thing that ever leaves the machine. It
// says what happened, with what build, and what was and was not uploaded. Files on disk (dumps,
// logs) are described, not included. docs/formats/report.md has the keys.

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "core/file_layer.h"
#include "diagnostics/session_checkpoint.h"

namespace zul {

struct ReportRequest {
  std::string kind;              ///< a short word
  std::string reason;            ///< a sentence, UTF-8
  std::string client_report_id;  ///< may be empty
  fs::Path report_file;          ///< its text goes into the report, redacted; may be empty
  fs::Path dump_file;            ///< described only; may be empty
  DiagnosticFields details;
  bool user_approved_redacted_log_tail = false;
};

/// The keys of what recovery adds to a manifest, each announced in `upload_contract.what_uploaded`.
inline constexpr std::string_view kCompactEvidenceKey = "compact_process_evidence";
inline constexpr std::string_view kPreviousForensicsKey = "previous_session_forensics";

/// <crash folder>/pending_reports.
[[nodiscard]] fs::Path PendingReportsDirectory(const fs::Path& crash_directory);

/// The manifest, normalised.
[[nodiscard]] nlohmann::json BuildReportManifest(const ReportRequest& request);

/// The last step of every build and every rewrite: identifiers that older versions wrote go, at any
/// depth, and the privacy promises stand. What is no object becomes one.
void NormalizeManifestPrivacy(nlohmann::json* manifest);

/// What an upload of the manifest carries, for `upload_contract.what_uploaded`.
[[nodiscard]] nlohmann::json UploadedParts(const nlohmann::json& manifest);

/// Writes the manifest under a new name into the queue of this process's crash folder. `file_name`
/// (may be null) gets the name. A reader finds the file whole or not at all.
[[nodiscard]] bool WriteManifestFile(const nlohmann::json& manifest, std::string* file_name);

/// Builds and writes a report and, unless it is a crash, starts the upload. From any thread; never
/// throws, a failure is a log line.
void EnqueueReport(const ReportRequest& request);

}  // namespace zul
