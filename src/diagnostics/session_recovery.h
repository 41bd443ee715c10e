#pragma once

// What earlier processes left (compact sessions, crash dumps, session files) becomes exactly one
// queued report each, and is then consumed. The words for an end state only what the evidence
// supports. Several processes may recover at once: each claims what it works on by one step that
// only one of them can take. Failures are log lines, and what failed is left for the next start.
//
// A session file is renamed while it is worked on, "<name>.recovering.<pid>"; then it is gone, or
// "<name>.invalid" for a human to look at, or back under its name. A compact session is renamed the
// same way, and one whose recoverer died is taken over. A dump stays, marked by the report text
// beside it.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "core/file_layer.h"

namespace zul {

struct SessionEndClassification {
  std::string exit_evidence_class = "abrupt_exit_timing_unknown";
  std::string reason = "unexpected_exit";
  std::string text =
      "Previous QORVA process ended without clean shutdown; exact OS cause unavailable";
  std::uint64_t checkpoint_age_ms = 0;
  bool checkpoint_age_known = false;
  bool host_monotonic_reset = false;
  std::uint64_t ui_heartbeat_sequence = 0;
  std::uint64_t ui_heartbeat_age_ms = 0;
  bool ui_watchdog_reported_stall = false;
  std::uint64_t checkpoint_sequence = 0;
  std::uint64_t process_uptime_ms = 0;
};

/// How the process of a session file or checkpoint record ended, as far as that tells. `session`
/// may be any JSON. `now_unix_ms` is the wall clock, `now_host_monotonic_ms` the host's steady
/// clock.
[[nodiscard]] SessionEndClassification ClassifySessionEnd(const nlohmann::json& session,
                                                          std::uint64_t now_unix_ms,
                                                          std::uint64_t now_host_monotonic_ms);

/// Turns the compact sessions that nobody writes any more into reports, those that ended cleanly
/// apart, and expires the oldest of the queued ones.
void RecoverCompactEvidence(const fs::Path& crash_directory);

/// Reports the dumps that lie in the crash folder without a report text beside them.
void RecoverOrphanDumps(const fs::Path& crash_directory);

/// Reports the sessions of processes that are gone. Returns how many became reports.
std::size_t RecoverSessions(const fs::Path& crash_directory);

}  // namespace zul
