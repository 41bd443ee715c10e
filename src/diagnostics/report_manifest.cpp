#include "diagnostics/report_manifest.h"

#include <atomic>
#include <cstdint>

#include "core/file_ops.h"
#include "core/logger.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/diagnostic_names.h"
#include "diagnostics/diagnostics.h"
#include "diagnostics/redaction.h"
#include "diagnostics/report_text.h"
#include "diagnostics/report_upload.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::size_t kReportTextBytesMax = 131072;
// Two processes may choose one name in the same second.
constexpr int kNameAttempts = 1000;

/// The start of a file; empty when it is absent or cannot be read, which the log says of the
/// latter.
std::string ReadTextPrefix(const fs::Path& path) {
  if (path.empty()) return {};
  std::string text;
  std::error_code ec;
  fs::File file = fs::OpenForRead(path, ec);
  if (ec) {
    if (!IsNotFoundError(ec)) LogDiagnosticsFailure("read text prefix", SystemErrorText(ec));
    return {};
  }
  text.resize(kReportTextBytesMax);
  std::size_t filled = 0;
  std::size_t read = 1;
  while (filled < text.size() && read > 0) {
    if (!file.Read(text.data() + filled, text.size() - filled, &read, ec)) {
      LogDiagnosticsFailure("read text prefix", SystemErrorText(ec));
      break;
    }
    filled += read;
  }
  text.resize(filled);
  // Half a line is half an event, and may be half a secret that no rule knows any more.
  const std::size_t last_end = text.rfind('\n');
  if (filled == kReportTextBytesMax && last_end != std::string::npos) text.resize(last_end + 1);
  return text;
}

json Details(const DiagnosticFields& fields) {
  json details = json::object();
  for (const auto& [key, value] : fields) {
    if (!key.empty()) details[SanitizeIdentifier(key)] = ReportField(key, value);
  }
  return details;
}

json UploadContract(bool log_tail_approved) {
  return {{"action_id", "diagnostics.upload"},
          {"redaction_policy", kRedactionPolicy},
          {"what_uploaded", UploadedParts(json::object())},
          {"source_artwork_uploaded", false},
          {"dump_uploaded", false},
          {"raw_recent_log_tail_uploaded", false},
          {"user_approved_redacted_log_tail_uploaded", log_tail_approved},
          {"result", "queued"}};
}

json Privacy(bool log_tail_approved) {
  return {{"report_text_policy",
           log_tail_approved ? "user_approved_redacted_log_tail" : "log_tail_omitted_by_default"},
          {"user_approved_redacted_log_tail_uploaded", log_tail_approved}};
}

std::string NewManifestName(const json& manifest) {
  static std::atomic<std::uint64_t> counter{0};
  const auto kind = manifest.find("kind");
  const std::string word =
      kind != manifest.end() && kind->is_string() ? kind->get<std::string>() : std::string();
  return "qorva_" + SanitizeIdentifier(word) + "_" + LocalTimeForNames() + "_" +
         std::to_string(++counter) + ".json";
}

void Enqueue(const ReportRequest& request) {
  std::string file_name;
  if (!WriteManifestFile(BuildReportManifest(request), &file_name)) return;
  if (request.kind == "crash") return;  // sent by the start that recovered it
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kInfo,
                  "Diagnostics report queued: ", file_name);
  if (GetDiagnosticsState().upload_enabled) {
    StartUploadWorker();
    return;
  }
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kInfo,
                  "Diagnostics server upload is disabled for this isolated process; report "
                  "retained locally.");
}

}  // namespace

fs::Path PendingReportsDirectory(const fs::Path& crash_directory) {
  return crash_directory / "pending_reports";
}

json UploadedParts(const json& manifest) {
  json parts = {"diagnostics_manifest", "redacted_report_text",   "artifact_metadata",
                "sanitized_details",    "structured_breadcrumbs", "upload_attempt_evidence"};
  if (manifest.contains(kCompactEvidenceKey)) parts.push_back(kCompactEvidenceKey);
  if (manifest.contains(kPreviousForensicsKey)) parts.push_back("last_session_forensics");
  return parts;
}

json BuildReportManifest(const ReportRequest& request) {
  const bool approved = request.user_approved_redacted_log_tail;
  const fs::Path log = PathOrEmpty(GetDiagnosticsState().log_file_path);
  json manifest = {{"schema_name", "qorva.diagnostics.report"},
                   {"schema_version", 2},
                   {"payload_kind", "diagnostics_manifest"},
                   {"kind", request.kind.empty() ? "unknown" : request.kind},
                   {"reason", ReportSentence(request.reason)},
                   {"created_at_local", LocalTimeText()},
                   {"app", AppObject()},
                   {"privacy", Privacy(approved)},
                   {"artifacts",
                    {{"report", ArtifactMetadata(request.report_file)},
                     {"dump", ArtifactMetadata(request.dump_file)},
                     {"log", ArtifactMetadata(log)}}},
                   {"report_text", ReportText(ReadTextPrefix(request.report_file), approved)},
                   {"details", Details(request.details)},
                   {"breadcrumbs", SessionBreadcrumbs()},
                   {"upload_contract", UploadContract(approved)}};
  if (!request.client_report_id.empty()) {
    manifest["client_report_id"] = SanitizeIdentifier(request.client_report_id);
  }
  NormalizeManifestPrivacy(&manifest);
  return manifest;
}

bool WriteManifestFile(const json& manifest, std::string* file_name) {
  const fs::Path crash_directory = PathOrEmpty(GetDiagnosticsState().crash_directory);
  const fs::Path queue = PendingReportsDirectory(crash_directory);
  std::error_code ec;
  if (crash_directory.empty() || !fs::CreateDirectories(queue, ec)) {
    LogDiagnosticsFailure("manifest queue directory create",
                          crash_directory.empty() ? "no crash folder" : SystemErrorText(ec));
    return false;
  }
  const std::string text = manifest.dump(2, ' ', false, json::error_handler_t::replace);
  FileOpResult written;
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    std::string name = NewManifestName(manifest);
    written = PublishNewFile(queue / name, text, {});
    if (written.ok && file_name != nullptr) *file_name = std::move(name);
    if (written.status != kFileOpTargetExists) break;
  }
  if (written.ok) return true;
  const bool opened = written.status != kFileOpTempNotCreated &&
                      written.status != kFileOpPermissionDenied &&
                      written.status != kFileOpParentNotCreated;
  if (opened) {
    LogDiagnosticsFailure("manifest file write", "stream write failed");
  } else {
    LogDiagnosticsFailure("manifest file open", "stream open failed");
  }
  return false;
}

void EnqueueReport(const ReportRequest& request) {
  RunGuarded("enqueue report", [&] { Enqueue(request); });
}

}  // namespace zul
