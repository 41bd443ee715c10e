#pragma once

// What recovery makes of the session of an earlier process, whether its session file or its compact
// checkpoint is left. For this room only; other rooms call diagnostics.h.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/path.h"

namespace zul {

/// The largest session file that is read. The largest that a process writes has 64 steps of a few
/// hundred bytes each.
inline constexpr std::size_t kSessionFileBytesMax = 524288;

/// The unclaimed session files of a crash folder, sorted by name.
[[nodiscard]] std::vector<fs::Path> ListSessionFiles(const fs::Path& crash_directory);

/// How a process ended, as far as its session shows.
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

/// Classifies the end of a session, which may be any JSON. `now_unix_ms` is the time of UnixTimeMs,
/// `now_host_monotonic_ms` that of TickCountMs.
[[nodiscard]] SessionEndClassification ClassifySessionEnd(const nlohmann::json& session,
                                                          std::uint64_t now_unix_ms,
                                                          std::uint64_t now_host_monotonic_ms);

/// As above, at the present time.
[[nodiscard]] SessionEndClassification ClassifySessionEndNow(const nlohmann::json& session);

/// Adds the previous process's breadcrumbs and classification to a manifest, with the promise on
/// privacy that belongs to them. The manifest then needs FinishManifest.
void AddSessionForensics(const nlohmann::json& session, const SessionEndClassification& end,
                         nlohmann::json* manifest);

}  // namespace zul
