#pragma once

// A report: one JSON file in the pending queue, the only thing that ever leaves the machine. It
// says what happened, in which build, and what was and was not uploaded. It describes files on disk
// (dumps, logs) without their contents. docs/formats/report.md lists the keys.
//
// The functions here depend on their arguments alone: no disk, no clock, no state of the process.

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "core/path.h"
#include "diagnostics/field_text.h"

namespace zul {

/// The `schema_name` of every report.
inline constexpr std::string_view kReportSchema = "qorva.diagnostics.report";

/// What a report is about. Texts are UTF-8.
struct ReportRequest {
  std::string kind;              ///< a short word; empty means "unknown"
  std::string reason;            ///< a sentence
  std::string client_report_id;  ///< may be empty
  fs::Path report_file;          ///< its text becomes part of the report; may be empty
  std::string trace_run_id;      ///< set when that is the update trace: `correlation_id` of the run
  fs::Path dump_file;            ///< described only; may be empty
  DiagnosticFields details;
  bool user_approved_redacted_log_tail = false;
};

/// What a report contains besides its request.
struct ReportFacts {
  std::string created_at_local;  ///< as LocalTimeText gives it
  nlohmann::json app;            ///< build and process, an object
  nlohmann::json breadcrumbs;    ///< of a session, an array
  nlohmann::json artifacts;      ///< `report`, `dump` and `log`, each as ArtifactMetadata gives it
  std::string report_file_text;  ///< of the report file; neither cut nor redacted yet
};

/// The keys of what recovery adds to a manifest.
inline constexpr std::string_view kCompactEvidenceKey = "compact_process_evidence";
inline constexpr std::string_view kCompactHangKey = "compact_process_hang";
inline constexpr std::string_view kPreviousForensicsKey = "previous_session_forensics";

/// The manifest, finished.
[[nodiscard]] nlohmann::json BuildReportManifest(const ReportRequest& request,
                                                 const ReportFacts& facts);

/// To be called after an addition to a manifest: lists what an upload carries in
/// `upload_contract.what_uploaded`, and normalises the manifest.
void FinishManifest(nlohmann::json* manifest);

/// The last step of every build and every rewrite: removes, at any depth, the identifiers that
/// older versions wrote, and sets the promises on privacy. Anything but an object becomes one.
void NormalizeManifestPrivacy(nlohmann::json* manifest);

/// The words for what an upload of the manifest carries.
[[nodiscard]] nlohmann::json UploadedParts(const nlohmann::json& manifest);

}  // namespace zul
