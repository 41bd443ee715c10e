#include "diagnostics/upload_record.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "collector/evidence_sanitizer.h"
#include "core/deployment.h"
#include "core/error_catalogue.h"
#include "diagnostics/field_text.h"
#include "diagnostics/json_file.h"
#include "diagnostics/redaction.h"
#include "diagnostics/report_manifest.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::string_view kActionId = "diagnostics.upload";
constexpr char kAttempts[] = "upload_attempts";
constexpr char kOmitted[] = "older_upload_attempts_omitted";
constexpr char kContract[] = "upload_contract";

/// The attempts, oldest first. Anything but an array is replaced by an empty one.
json* AttemptsOf(json* manifest) {
  json& attempts = (*manifest)[kAttempts];
  if (!attempts.is_array()) attempts = json::array();
  return &attempts;
}

void BoundAttempts(json* manifest) {
  json& attempts = *AttemptsOf(manifest);
  if (attempts.size() <= kUploadAttemptsMax) return;
  const std::size_t excess = attempts.size() - kUploadAttemptsMax;
  attempts.erase(attempts.begin(), attempts.begin() + static_cast<std::ptrdiff_t>(excess));
  const std::uint64_t before = NumberIn(*manifest, kOmitted);
  const std::uint64_t room = std::numeric_limits<std::uint64_t>::max() - before;
  (*manifest)[kOmitted] = before + std::min<std::uint64_t>(excess, room);
}

/// The size of a document that contains its own size as a decimal number, computed from its size
/// with a number of one digit. Each further digit makes the document one byte longer.
std::size_t SizeWithOwnSize(std::size_t size_with_one_digit) {
  std::size_t digits = 1;
  while (std::to_string(size_with_one_digit - 1 + digits).size() > digits) ++digits;
  return size_with_one_digit - 1 + digits;
}

}  // namespace

std::string_view OriginRole(std::string_view origin) {
  for (const auto& [host_word, role] : deployment::kOriginRoles) {
    if (origin.find(host_word) != std::string_view::npos) return role;
  }
  return "unknown";
}

void PrepareForUpload(json* manifest, std::string_view correlation_id) {
  (*manifest)["upload_attempted_at_local"] = LocalTimeText();
  for (const std::string_view key : {kCompactEvidenceKey, kCompactHangKey}) {
    const auto evidence = manifest->find(key);
    if (evidence != manifest->end()) *evidence = SanitizeEvidenceRecord(*evidence);
  }
  BoundAttempts(manifest);
  json& contract = *ObjectIn(manifest, kContract);
  contract["action_id"] = kActionId;
  contract["correlation_id"] = correlation_id;
  contract["redaction_policy"] = kRedactionPolicy;
  for (const char* flag :
       {"source_artwork_uploaded", "dump_uploaded", "raw_recent_log_tail_uploaded"}) {
    contract[flag] = false;
  }
  FinishManifest(manifest);
}

void BeginAttempt(json* manifest, std::string_view origin, std::string_view correlation_id) {
  AttemptsOf(manifest)->push_back({{"attempted_at_local", LocalTimeText()},
                                   {"action_id", kActionId},
                                   {"correlation_id", correlation_id},
                                   {"origin_role", OriginRole(origin)},
                                   {"origin", origin},
                                   {"url", std::string(origin).append(kReportPath)},
                                   {"result", "attempting"},
                                   {"payload_size_bytes", 0},
                                   {"redaction_policy", kRedactionPolicy}});
  BoundAttempts(manifest);
  (*manifest)[kAttempts].back()["payload_size_bytes"] =
      SizeWithOwnSize(UploadPayload(*manifest).size());
}

bool IsDelivered(const net::HttpResponse& response) {
  return response.error.empty() && response.status >= 200 && response.status <= 299;
}

void EndAttempt(json* manifest, const net::HttpResponse& response) {
  const bool delivered = IsDelivered(response);
  const std::string_view error_id =
      delivered ? std::string_view() : RecoveryFlowErrorId(kRecoveryFlowDiagnostics);
  const std::string transport_error = RedactSupportText(response.error);
  json& report = *manifest;
  json& attempt = report[kAttempts].back();
  attempt["result"] = delivered ? "success" : "failed";
  attempt["chain_event"] = delivered ? "end" : "failure";
  attempt["http_status"] = response.status;
  attempt["transport_error"] = transport_error;
  attempt["user_error_id"] = error_id;
  report["last_upload_status"] = attempt["result"];
  report["last_upload_origin_role"] = attempt["origin_role"];
  report["last_upload_http_status"] = response.status;
  report["last_upload_transport_error"] = transport_error;
  report["last_upload_error_id"] = error_id;
}

void MarkCancelled(json* manifest) {
  (*manifest)["last_upload_status"] = "cancelled";
  (*manifest)["last_upload_error_id"] = RecoveryFlowErrorId(kRecoveryFlowDiagnostics);
  (*ObjectIn(manifest, kContract))["result"] = "cancelled";
}

void MarkFailed(json* manifest) {
  (*ObjectIn(manifest, kContract))["result"] = "failed";
}

std::string UploadPayload(const json& manifest) {
  return manifest.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace zul
