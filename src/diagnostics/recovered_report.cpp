#include "diagnostics/recovered_report.h"

#include "core/process_environment.h"
#include "core/system_error.h"
#include "diagnostics/compact_checkpoint.h"
#include "diagnostics/diagnostic_names.h"
#include "diagnostics/hostile_json.h"
#include "diagnostics/report_manifest.h"

namespace zul {

using nlohmann::json;

SessionEndClassification ClassifySessionEndNow(const json& session) {
  return ClassifySessionEnd(session, UnixTimeMs(), TickCountMs());
}

void AddSessionForensics(const json& session, const SessionEndClassification& end, json* manifest) {
  (*manifest)["breadcrumbs"] =
      SanitizeBreadcrumbs(MemberOf(session, "breadcrumbs"), kSessionBreadcrumbs, nullptr);
  (*manifest)[std::string(kPreviousForensicsKey)] = {
      {"classification", end.exit_evidence_class},
      {"checkpoint_sequence", end.checkpoint_sequence},
      {"checkpoint_age_known", end.checkpoint_age_known},
      {"checkpoint_age_ms", end.checkpoint_age_ms},
      {"process_uptime_ms", end.process_uptime_ms},
      {"host_monotonic_reset", end.host_monotonic_reset},
      {"ui_heartbeat_sequence", end.ui_heartbeat_sequence},
      {"ui_heartbeat_age_ms", end.ui_heartbeat_age_ms},
      {"ui_watchdog_reported_stall", end.ui_watchdog_reported_stall},
      {"runtime_state", SanitizeRuntimeState(MemberOf(session, "runtime_state"), nullptr)}};
  (*manifest)["privacy"]["last_session_forensics"] = "bounded_sanitized_state_only";
}

void FinishManifest(json* manifest) {
  (*manifest)["upload_contract"]["what_uploaded"] = UploadedParts(*manifest);
  NormalizeManifestPrivacy(manifest);
}

bool WriteReportText(const fs::Path& path, std::string_view text, std::string_view label) {
  std::error_code ec;
  fs::File file = fs::CreateNewFileItself(path, ec);
  if (!file.is_open()) {
    LogDiagnosticsFailure(std::string(label) + " open", "stream open failed");
    return false;
  }
  if (fs::WriteAll(file, text.data(), text.size(), ec) && file.Close(ec)) return true;
  LogDiagnosticsFailure(std::string(label) + " write", "stream write failed");
  fs::Remove(path, ec);
  return false;
}

}  // namespace zul
