#include "diagnostics/recovered_session.h"

#include "core/process_environment.h"
#include "core/system_error.h"
#include "diagnostics/diagnostics_log.h"
#include "diagnostics/json_file.h"
#include "diagnostics/report_manifest.h"
#include "diagnostics/session_checkpoint.h"
#include "diagnostics/session_sanitizer.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::uint64_t kStallMs = 45000;

bool EndedInShutdown(const json& session) {
  const json& breadcrumbs = MemberOf(session, "breadcrumbs");
  return breadcrumbs.is_array() && !breadcrumbs.empty() &&
         TextIn(breadcrumbs.back(), "event") == "diagnostics_shutdown_started";
}

}  // namespace

std::vector<fs::Path> ListSessionFiles(const fs::Path& crash_directory) {
  std::error_code ec;
  std::vector<fs::Path> files = ListJsonFiles(SessionStateDirectory(crash_directory), ec);
  if (ec && !IsNotFoundError(ec)) LogDiagnosticsFailure("session recovery", SystemErrorText(ec));
  return files;
}

SessionEndClassification ClassifySessionEnd(const json& session, std::uint64_t now_unix_ms,
                                            std::uint64_t now_host_monotonic_ms) {
  SessionEndClassification end;
  end.checkpoint_sequence = NumberIn(session, "checkpoint_sequence");
  end.process_uptime_ms = NumberIn(session, "process_uptime_ms");
  const std::uint64_t updated_ms = NumberIn(session, "updated_at_unix_ms");
  end.checkpoint_age_known = updated_ms != 0 && updated_ms <= now_unix_ms;
  if (end.checkpoint_age_known) end.checkpoint_age_ms = now_unix_ms - updated_ms;
  // This clock counts from the start of the host, so a smaller value means another start.
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

}  // namespace zul
