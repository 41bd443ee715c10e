#pragma once

// Keeping evidence bounded without touching what a living process or observer still writes. Both
// passes keep a count and know no ages. Other processes may run the same passes at the same time.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/file_layer.h"

namespace zul {

/// How many finished sessions, and how many pending reports made from sessions, are kept.
inline constexpr std::size_t kEvidenceKept = 32;

/// What retention knows of one session. A session whose records do not tell both processes is never
/// deleted: it may be one that is just being made.
struct SessionLife {
  enum class State { kUnknown, kAlive, kEnded };
  std::string name;  ///< of the folder; begins with the time of the start
  State observed = State::kUnknown;
  State observer = State::kUnknown;
};

/// The names of the sessions to delete, oldest first: of those whose processes have both ended, all
/// but the newest kEvidenceKept.
[[nodiscard]] std::vector<std::string> ExpiredSessions(const std::vector<SessionLife>& sessions);

/// The report files to delete of the names in the pending folder, oldest first: of those made from
/// sessions ("compact_process_*.json") all but the newest kEvidenceKept. Others are never deleted.
[[nodiscard]] std::vector<std::string> ExpiredReports(const std::vector<std::string>& names);

/// Deletes expired sessions and says so in compact_process/retention.json, which is written only
/// when there was something to delete. To be called before a new session is made. `now_unix_ms` is
/// the wall clock, in milliseconds since 1970. Failures leave the rest for the next start.
void EnforceCompactRetention(const fs::Path& crash_directory, std::uint64_t now_unix_ms);

/// The same for the reports in pending_reports: compact_process/queue_retention.json, and a line in
/// the log.
void EnforceQueueRetention(const fs::Path& crash_directory, std::uint64_t now_unix_ms);

}  // namespace zul
