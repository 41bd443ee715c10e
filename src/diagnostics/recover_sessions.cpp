// The recovery of session files.

#include <nlohmann/json.hpp>
#include <string>

#include "collector/process_life.h"
#include "core/file_layer.h"
#include "core/system_error.h"
#include "diagnostics/diagnostics_log.h"
#include "diagnostics/json_file.h"
#include "diagnostics/recovered_session.h"
#include "diagnostics/recovery.h"
#include "diagnostics/recovery_claim.h"
#include "diagnostics/report_files.h"
#include "diagnostics/report_text.h"
#include "diagnostics/session_sanitizer.h"

namespace zul {

namespace {

using nlohmann::json;

const char* WordOf(bool flag) {
  return flag ? "true" : "false";
}

bool IsActive(const json& session) {
  return TextIn(session, "termination_state") == "active";
}

bool IsAlive(const json& session) {
  return IsProcessAlive({NumberIn(session, "pid"), TextIn(session, "process_identity")});
}

/// Checked before a file is claimed: a living process writes its file and deletes it at its end,
/// and must find it under its name.
bool IsOfLivingProcess(const fs::Path& file) {
  json session;
  return ReadJsonObject(file, kSessionFileBytesMax, &session) == JsonFileState::kObject &&
         IsActive(session) && IsAlive(session);
}

/// What the text and the details of a report say about the end, in the order of the text.
DiagnosticFields EndFields(const SessionEndClassification& end) {
  DiagnosticFields fields = {
      {"host_monotonic_reset", WordOf(end.host_monotonic_reset)},
      {"checkpoint_sequence", std::to_string(end.checkpoint_sequence)},
      {"process_uptime_ms", std::to_string(end.process_uptime_ms)},
      {"ui_heartbeat_sequence", std::to_string(end.ui_heartbeat_sequence)},
      {"ui_heartbeat_age_ms", std::to_string(end.ui_heartbeat_age_ms)},
      {"ui_watchdog_reported_stall", WordOf(end.ui_watchdog_reported_stall)}};
  if (end.checkpoint_age_known) {
    fields.insert(fields.begin(), {"checkpoint_age_ms", std::to_string(end.checkpoint_age_ms)});
  }
  return fields;
}

std::string StepText(const json& breadcrumb) {
  const auto redacted = [&](const char* key) {
    return ReportSentence(TextIn(breadcrumb, key, "unknown"));
  };
  std::string line = "step=" + std::to_string(NumberIn(breadcrumb, "sequence")) +
                     " time=" + redacted("time_local") + " event=" + redacted("event");
  for (const auto& [key, value] : TextsIn(MemberOf(breadcrumb, "details"))) {
    line += " " + SanitizeIdentifier(key) + "=" + ReportField(key, value);
  }
  return line;
}

std::string SessionReportText(const json& session, const SessionEndClassification& end,
                              const std::string& id) {
  const auto redacted = [&](const char* key) { return ReportSentence(TextIn(session, key)); };
  std::string text = "QORVA recovered session report";
  text += "\ntime_local=" + LocalTimeText();
  text += "\nreason=" + end.text;
  text += "\nclient_report_id=" + id;
  text += "\nprevious_session_started=" + redacted("started_at_local");
  text += "\nprevious_session_updated=" + redacted("updated_at_local");
  text += "\nevidence_classification=" + end.exit_evidence_class;
  for (const auto& [key, value] : EndFields(end)) {
    text.append("\n").append(key).append("=").append(value);
  }
  text += "\n\n=== last known runtime state ===\n";
  for (const auto& [key, value] : TextsIn(MemberOf(session, "runtime_state"))) {
    text += SanitizeIdentifier(key) + "=" + ReportField(key, value) + "\n";
  }
  text += "\n=== recent structured steps ===\n";
  const json& breadcrumbs = MemberOf(session, "breadcrumbs");
  if (breadcrumbs.is_array()) {
    for (const json& breadcrumb : breadcrumbs) text += StepText(breadcrumb) + "\n";
  }
  return text;
}

DiagnosticFields ReportDetails(const json& session, const SessionEndClassification& end) {
  const json& breadcrumbs = MemberOf(session, "breadcrumbs");
  const std::size_t count = breadcrumbs.is_array() ? breadcrumbs.size() : 0;
  DiagnosticFields details = EndFields(end);
  details.emplace_back("previous_session_id", TextIn(session, "session_id"));
  details.emplace_back("exit_evidence_class", end.exit_evidence_class);
  details.emplace_back("breadcrumb_count", std::to_string(count));
  details.emplace_back("last_event",
                       count == 0 ? "unknown" : TextIn(breadcrumbs.back(), "event", "unknown"));
  return details;
}

/// Writes the report of a session into the queue, and its text into the crash folder.
bool ReportSession(const json& session, const RecoveryClaim& claim,
                   const RecoverySurroundings& surroundings) {
  const SessionEndClassification end = ClassifySessionEndNow(session);
  ReportRequest request;
  request.kind = end.reason;
  request.reason = end.text;
  request.client_report_id = MakeDiagnosticId(end.reason);
  request.report_file =
      surroundings.crash_directory /
      ("qorva_" + end.reason + "_" + LocalTimeForNames() + "_" + request.client_report_id + ".txt");
  request.details = ReportDetails(session, end);
  const std::string text = SessionReportText(session, end, request.client_report_id);
  if (!WriteReportText(request.report_file, text, "recovered session report")) return false;

  json manifest = BuildReportManifest(request, surroundings.facts(request));
  manifest["app"] = SanitizeAppObject(MemberOf(session, "app"));
  AddSessionForensics(session, end, &manifest);
  FinishManifest(&manifest);
  if (claim.StillHeld() && WriteManifestFile(surroundings.crash_directory, manifest, nullptr)) {
    return true;
  }
  std::error_code ec;
  fs::Remove(request.report_file, ec);
  return false;
}

/// Renames a file that is no session, for a human to examine.
void SetAside(RecoveryClaim* claim, const fs::Path& file) {
  fs::Path invalid = file;
  invalid += ".invalid";
  std::error_code ec;
  if (fs::MoveReplacing(claim->path(), invalid, ec)) {
    claim->Consumed();
  } else {
    LogDiagnosticsFailure("session recovery", SystemErrorText(ec));
  }
}

void Delete(RecoveryClaim* claim) {
  std::error_code ec;
  fs::Remove(claim->path(), ec);
  if (ec) LogDiagnosticsFailure("session recovery", SystemErrorText(ec));
  claim->Consumed();
}

/// True when the session was reported.
bool RecoverSessionFile(const fs::Path& file, const RecoverySurroundings& surroundings) {
  if (IsOfLivingProcess(file)) return false;
  RecoveryClaim claim(file, ClaimKind::kFile);
  if (!claim.held()) return false;
  json session;
  std::string message;
  switch (ReadJsonObject(claim.path(), kSessionFileBytesMax, &session, &message)) {
    case JsonFileState::kUnreadable:
      // A file that is gone was taken by another process.
      if (claim.StillHeld()) LogDiagnosticsFailure("session recovery", message);
      return false;
    case JsonFileState::kNotAnObject:
      SetAside(&claim, file);
      return false;
    case JsonFileState::kObject:
      break;
  }
  if (!IsActive(session)) {
    Delete(&claim);  // the process finished its session and died before it deleted the file
    return false;
  }
  if (IsAlive(session) || !ReportSession(session, claim, surroundings)) return false;
  Delete(&claim);
  return true;
}

}  // namespace

std::size_t RecoverSessions(const RecoverySurroundings& surroundings) {
  std::size_t count = 0;
  for (const fs::Path& file : ListSessionFiles(surroundings.crash_directory)) {
    RunGuarded("session recovery",
               [&] { count += RecoverSessionFile(file, surroundings) ? 1 : 0; });
  }
  return count;
}

}  // namespace zul
