#pragma once

// Limits on the number of sessions and pending reports. Both passes keep the 32 newest; there is no
// limit on age. Neither deletes what a running process or observer still writes. Several processes
// may run a pass at the same time.

#include <cstdint>

#include "core/path.h"

namespace zul {

/// Deletes the sessions whose observed process and observer have both ended, except for the 32
/// newest of them. Also deletes each session without an incident record whose name names a process
/// that has ended: it holds nothing to report. Any other session whose records do not name both
/// processes is kept for recovery. When there were old sessions to delete, the result is recorded
/// in compact_process/retention.json. To be called before a new session is created. `now_unix_ms`
/// is the wall clock in milliseconds since 1970. What could not be deleted remains for the next
/// start.
void EnforceCompactRetention(const fs::Path& crash_directory, std::uint64_t now_unix_ms);

/// The same for the reports in pending_reports that were made from sessions
/// ("compact_process_*.json"); other files there are never deleted. The result is recorded in
/// compact_process/queue_retention.json and in a line of the log.
void EnforceQueueRetention(const fs::Path& crash_directory, std::uint64_t now_unix_ms);

}  // namespace zul
