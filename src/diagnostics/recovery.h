#pragma once

// The recovery of what earlier processes left: compact sessions, crash dumps, session files. Each
// becomes exactly one queued report. The words for an end state only what the evidence supports.
// Several processes may recover at the same time: each claims a piece of evidence by a step that
// only one process can take. Failures are logged, and the evidence stays for the next start.
//
// A session file under recovery is named "<name>.recovering.<pid>". It is then deleted, renamed to
// "<name>.invalid" for a human to examine, or renamed back. A compact session is renamed in the
// same way and then deleted. A dump stays; the report text beside it marks it as reported.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "core/path.h"
#include "diagnostics/report_manifest.h"

namespace zul {

/// The newest part of this process's log.
struct LogTail {
  std::string path;                ///< of the log file, UTF-8
  std::vector<std::string> lines;  ///< oldest first
};

/// What recovery needs of the process that it runs in. It asks again for each report.
struct RecoverySurroundings {
  fs::Path crash_directory;
  std::function<ReportFacts(const ReportRequest&)> facts;
  std::function<LogTail()> log_tail;
};

/// Reports the compact sessions whose process and observer are gone, except those that ended
/// cleanly, and deletes all of them. Then deletes the oldest reports of this kind from the queue.
void RecoverCompactEvidence(const RecoverySurroundings& surroundings);

/// Reports the dumps in the crash folder that have no report text beside them. The updater itself
/// writes none; they come from the long-running application, which shares the folder.
void RecoverOrphanDumps(const RecoverySurroundings& surroundings);

/// Reports the session files of processes that are gone, and deletes them. Returns the number of
/// reports.
std::size_t RecoverSessions(const RecoverySurroundings& surroundings);

}  // namespace zul
