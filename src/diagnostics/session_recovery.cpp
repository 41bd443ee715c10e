#include "diagnostics/session_recovery.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "collector/process_life.h"
#include "core/system_error.h"
#include "diagnostics/compact_checkpoint.h"
#include "diagnostics/diagnostic_names.h"
#include "diagnostics/hostile_json.h"
#include "diagnostics/recovered_report.h"
#include "diagnostics/recovery_claim.h"
#include "diagnostics/report_manifest.h"
#include "diagnostics/report_text.h"
#include "diagnostics/session_checkpoint.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::uint64_t kStallMs = 45000;

const char* WordOf(bool flag) {
  return flag ? "true" : "false";
}

bool EndedInShutdown(const json& session) {
  const json& breadcrumbs = MemberOf(session, "breadcrumbs");
  return breadcrumbs.is_array() && !breadcrumbs.empty() &&
         TextIn(breadcrumbs.back(), "event") == "diagnostics_shutdown_started";
}

bool IsActive(const json& session) {
  return TextIn(session, "termination_state") == "active";
}

bool IsAlive(const json& session) {
  return IsProcessAlive({NumberIn(session, "pid"), TextIn(session, "process_identity")});
}

/// Asked before a file is claimed: a living process writes and at its end deletes its file, and has
/// to find it in its place.
bool IsOfLivingProcess(const fs::Path& file) {
  json session;
  return ReadJsonObject(file, kSessionFileBytesMax, &session) == JsonFileState::kObject &&
         IsActive(session) && IsAlive(session);
}

std::string HeadText(const json& session, const SessionEndClassification& end,
                     const std::string& id) {
  const auto redacted = [&](const char* key) { return ReportSentence(TextIn(session, key)); };
  std::string text = "QORVA recovered session report";
  text += "\ntime_local=" + LocalTimeText();
  text += "\nreason=" + end.text;
  text += "\nclient_report_id=" + id;
  text += "\nprevious_session_started=" + redacted("started_at_local");
  text += "\nprevious_session_updated=" + redacted("updated_at_local");
  text += "\nevidence_classification=" + end.exit_evidence_class;
  if (end.checkpoint_age_known) {
    text += "\ncheckpoint_age_ms=" + std::to_string(end.checkpoint_age_ms);
  }
  text += std::string("\nhost_monotonic_reset=") + WordOf(end.host_monotonic_reset);
  text += "\ncheckpoint_sequence=" + std::to_string(end.checkpoint_sequence);
  text += "\nprocess_uptime_ms=" + std::to_string(end.process_uptime_ms);
  text += "\nui_heartbeat_sequence=" + std::to_string(end.ui_heartbeat_sequence);
  text += "\nui_heartbeat_age_ms=" + std::to_string(end.ui_heartbeat_age_ms);
  text += std::string("\nui_watchdog_reported_stall=") + WordOf(end.ui_watchdog_reported_stall);
  return text + "\n";
}

std::string StepText(const json& breadcrumb) {
  const auto redacted = [&](const char* key) {
    return ReportSentence(TextIn(breadcrumb, key, "unknown"));
  };
  std::string line = "step=" + std::to_string(NumberIn(breadcrumb, "sequence")) +
                     " time=" + redacted("time_local") + " event=" + redacted("event");
  const json& details = MemberOf(breadcrumb, "details");
  if (!details.is_object()) return line;
  for (const auto& [key, value] : details.items()) {
    if (!value.is_string()) continue;
    line +=
        " " + SanitizeIdentifier(key) + "=" + ReportField(key, value.get_ref<const std::string&>());
  }
  return line;
}

std::string SessionReportText(const json& session, const SessionEndClassification& end,
                              const std::string& id) {
  std::string text = HeadText(session, end, id) + "\n=== last known runtime state ===\n";
  const json& runtime_state = MemberOf(session, "runtime_state");
  if (runtime_state.is_object()) {
    for (const auto& [key, value] : runtime_state.items()) {
      if (!value.is_string()) continue;
      text += SanitizeIdentifier(key) + "=" +
              ReportField(key, value.get_ref<const std::string&>()) + "\n";
    }
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
  DiagnosticFields details = {
      {"previous_session_id", TextIn(session, "session_id")},
      {"exit_evidence_class", end.exit_evidence_class},
      {"checkpoint_sequence", std::to_string(end.checkpoint_sequence)},
      {"process_uptime_ms", std::to_string(end.process_uptime_ms)},
      {"ui_heartbeat_sequence", std::to_string(end.ui_heartbeat_sequence)},
      {"ui_heartbeat_age_ms", std::to_string(end.ui_heartbeat_age_ms)},
      {"ui_watchdog_reported_stall", WordOf(end.ui_watchdog_reported_stall)},
      {"host_monotonic_reset", WordOf(end.host_monotonic_reset)}};
  if (end.checkpoint_age_known) {
    details.emplace_back("checkpoint_age_ms", std::to_string(end.checkpoint_age_ms));
  }
  details.emplace_back("breadcrumb_count", std::to_string(count));
  details.emplace_back("last_event",
                       count == 0 ? "unknown" : TextIn(breadcrumbs.back(), "event", "unknown"));
  return details;
}

/// The report of a session into the queue, its text into the crash folder.
bool ReportSession(const json& session, const RecoveryClaim& claim,
                   const fs::Path& crash_directory) {
  const SessionEndClassification end = ClassifySessionEndNow(session);
  ReportRequest request;
  request.kind = end.reason;
  request.reason = end.text;
  request.client_report_id = MakeDiagnosticId(end.reason);
  request.report_file = crash_directory / ("qorva_" + end.reason + "_" + LocalTimeForNames() + "_" +
                                           request.client_report_id + ".txt");
  request.details = ReportDetails(session, end);
  const std::string text = SessionReportText(session, end, request.client_report_id);
  if (!WriteReportText(request.report_file, text, "recovered session report")) return false;

  json manifest = BuildReportManifest(request);
  manifest["app"] = SanitizeAppObject(MemberOf(session, "app"));
  AddSessionForensics(session, end, &manifest);
  FinishManifest(&manifest);
  if (claim.StillHeld() && WriteManifestFile(manifest, nullptr)) return true;
  std::error_code ec;
  fs::Remove(request.report_file, ec);
  return false;
}

/// Puts a file that nothing can be made of out of the way, for a human to look at.
void SetAside(RecoveryClaim& claim, const fs::Path& file) {
  fs::Path invalid = file;
  invalid += ".invalid";
  std::error_code ec;
  if (fs::MoveReplacing(claim.path(), invalid, ec)) {
    claim.Consumed();
  } else {
    LogDiagnosticsFailure("session recovery", SystemErrorText(ec));
  }
}

void Delete(RecoveryClaim& claim) {
  std::error_code ec;
  fs::Remove(claim.path(), ec);
  if (ec) LogDiagnosticsFailure("session recovery", SystemErrorText(ec));
  claim.Consumed();
}

/// True when the session became a report.
bool RecoverSession(const fs::Path& file, const fs::Path& crash_directory) {
  if (IsOfLivingProcess(file)) return false;
  RecoveryClaim claim(file, ClaimKind::kFile);
  if (!claim.held()) return false;
  json session;
  switch (ReadJsonObject(claim.path(), kSessionFileBytesMax, &session)) {
    case JsonFileState::kUnreadable:
      return false;
    case JsonFileState::kNotAnObject:
      SetAside(claim, file);
      return false;
    case JsonFileState::kObject:
      break;
  }
  if (!IsActive(session)) {
    Delete(claim);  // it was finished, and died before it could delete the file
    return false;
  }
  if (IsAlive(session) || !ReportSession(session, claim, crash_directory)) return false;
  Delete(claim);
  return true;
}

}  // namespace

SessionEndClassification ClassifySessionEnd(const json& session, std::uint64_t now_unix_ms,
                                            std::uint64_t now_host_monotonic_ms) {
  SessionEndClassification end;
  end.checkpoint_sequence = NumberIn(session, "checkpoint_sequence");
  end.process_uptime_ms = NumberIn(session, "process_uptime_ms");
  const std::uint64_t updated_ms = NumberIn(session, "updated_at_unix_ms");
  end.checkpoint_age_known = updated_ms != 0 && updated_ms <= now_unix_ms;
  if (end.checkpoint_age_known) end.checkpoint_age_ms = now_unix_ms - updated_ms;
  // The host's clock counts from its start: one that went backwards was started again.
  const std::uint64_t monotonic_ms = NumberIn(session, "host_monotonic_ms");
  end.host_monotonic_reset = monotonic_ms > now_host_monotonic_ms;
  const json& heartbeat = MemberOf(session, "ui_heartbeat");
  end.ui_heartbeat_sequence = NumberIn(heartbeat, "sequence");
  end.ui_heartbeat_age_ms = NumberIn(heartbeat, "age_ms");
  end.ui_watchdog_reported_stall = FlagIn(heartbeat, "watchdog_reported_stall");

  if (EndedInShutdown(session)) {
    end.exit_evidence_class = "interrupted_during_shutdown";
  } else if (end.ui_watchdog_reported_stall || end.ui_heartbeat_age_ms >= kStallMs) {
    end.exit_evidence_class = "ui_stall_then_abrupt_exit";
  } else if (end.host_monotonic_reset) {
    end.exit_evidence_class = "recovered_after_host_restart_or_monotonic_reset";
    end.reason = "host_restart";
    end.text = "Previous QORVA session was interrupted by a host restart or monotonic clock reset";
  } else if (monotonic_ms != 0) {
    end.exit_evidence_class = "abrupt_exit_same_host_boot";
  }
  return end;
}

std::vector<fs::Path> ListSessionFiles(const fs::Path& crash_directory) {
  std::vector<fs::Path> files;
  std::error_code ec;
  for (fs::DirectoryEntry& entry : fs::ListDirectory(SessionStateDirectory(crash_directory), ec)) {
    if (entry.kind == fs::EntryKind::kRegular && entry.path.extension() == ".json") {
      files.push_back(std::move(entry.path));
    }
  }
  if (ec && !IsNotFoundError(ec)) LogDiagnosticsFailure("session recovery", SystemErrorText(ec));
  std::sort(files.begin(), files.end());
  return files;
}

std::size_t RecoverSessions(const fs::Path& crash_directory) {
  std::size_t count = 0;
  for (const fs::Path& file : ListSessionFiles(crash_directory)) {
    RunGuarded("session recovery", [&] { count += RecoverSession(file, crash_directory) ? 1 : 0; });
  }
  return count;
}

}  // namespace zul
