#include "diagnostics/report_manifest.h"

#include <vector>

#include "diagnostics/json_file.h"
#include "diagnostics/redaction.h"
#include "diagnostics/redaction_steps.h"
#include "diagnostics/report_text.h"

namespace zul {

namespace {

using nlohmann::json;

/// Older versions described paths by hashes, which identify a machine.
constexpr std::string_view kHashKeys[] = {"path_hash", "filename_hash", "install_dir_hash"};
constexpr std::string_view kHashMarker = "[redacted-path:";

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

void DropHashesFromMarkers(std::string* text) {
  std::string out;
  std::size_t copied = 0;
  for (std::size_t marker = text->find(kHashMarker); marker != std::string::npos;
       marker = text->find(kHashMarker, copied)) {
    const std::size_t end = text->find(']', marker);
    if (end == std::string::npos) break;
    out.append(*text, copied, marker - copied).append(kRedactedPath);
    copied = end + 1;
  }
  if (copied != 0) *text = out.append(*text, copied);
}

/// Without recursion, so that no depth of nesting exhausts the stack.
void DropStableIdentifiers(json* manifest) {
  std::vector<json*> pending = {manifest};
  while (!pending.empty()) {
    json& value = *pending.back();
    pending.pop_back();
    if (value.is_string()) DropHashesFromMarkers(value.get_ptr<std::string*>());
    if (value.is_object()) {
      for (const std::string_view key : kHashKeys) value.erase(key);
    }
    if (!value.is_structured()) continue;
    for (json& member : value) pending.push_back(&member);
  }
}

}  // namespace

json BuildReportManifest(const ReportRequest& request, const ReportFacts& facts) {
  const bool approved = request.user_approved_redacted_log_tail;
  json manifest = {{"schema_name", kReportSchema},
                   {"schema_version", 2},
                   {"payload_kind", "diagnostics_manifest"},
                   {"kind", request.kind.empty() ? "unknown" : request.kind},
                   {"reason", ReportSentence(request.reason)},
                   {"created_at_local", facts.created_at_local},
                   {"app", facts.app},
                   {"privacy", Privacy(approved)},
                   {"artifacts", facts.artifacts},
                   {"report_text", ReportText(facts.report_file_text, approved)},
                   {"details", Details(request.details)},
                   {"breadcrumbs", facts.breadcrumbs},
                   {"upload_contract", UploadContract(approved)}};
  if (!request.client_report_id.empty()) {
    manifest["client_report_id"] = SanitizeIdentifier(request.client_report_id);
  }
  FinishManifest(&manifest);
  return manifest;
}

void FinishManifest(json* manifest) {
  (*ObjectIn(manifest, "upload_contract"))["what_uploaded"] = UploadedParts(*manifest);
  NormalizeManifestPrivacy(manifest);
}

void NormalizeManifestPrivacy(json* manifest) {
  if (!manifest->is_object()) *manifest = json::object();
  DropStableIdentifiers(manifest);
  (*manifest)["privacy_schema_version"] = 2;
  json& privacy = *ObjectIn(manifest, "privacy");
  for (const char* flag :
       {"source_artwork_uploaded", "dump_uploaded", "raw_recent_log_tail_uploaded",
        "user_approved_redacted_log_tail_uploaded"}) {
    if (!privacy.contains(flag)) privacy[flag] = false;
  }
  if (!privacy.contains("report_text_policy")) {
    privacy["report_text_policy"] = "log_tail_omitted_by_default";
  }
  privacy["paths"] = "redacted";
  privacy["path_identifier_policy"] = "omitted";
  privacy["legacy_stable_path_hashes"] = "removed";
  privacy["local_machine_ids"] = "omitted";
  privacy["redaction_policy"] = kRedactionPolicy;
}

json UploadedParts(const json& manifest) {
  json parts = {"diagnostics_manifest", "redacted_report_text",   "artifact_metadata",
                "sanitized_details",    "structured_breadcrumbs", "upload_attempt_evidence"};
  for (const std::string_view key : {kCompactEvidenceKey, kCompactHangKey}) {
    if (manifest.contains(key)) parts.push_back(key);
  }
  if (manifest.contains(kPreviousForensicsKey)) parts.push_back("last_session_forensics");
  return parts;
}

}  // namespace zul
