#pragma once

// The observed side of the collector. A process that starts the collector gets a second process of
// the same build, the observer. The observer holds a handle to the process, outlives it, and
// records how it ended.

#include <cstdint>
#include <string>

#include "core/path.h"

namespace zul {

/// The result of StartCompactCollector.
struct CollectorStartResult {
  bool ready = false;             ///< the observer answered
  std::string session_directory;  ///< UTF-8; empty when none was created
  std::string failure_reason;  ///< a reason word such as collector_launch_failed; empty when ready
};

/// Creates this process's session folder in `crash_directory`, installs the handlers for unhandled
/// exceptions and `std::terminate`, and starts the observer from `install_directory`. At most one
/// start in a process takes effect; a later call reports whether the observer still runs. Blocks
/// until the observer answers, at most about 6 s. After a failure the handlers may remain: a crash
/// is then still recorded, but without an observer. Otherwise no folder remains. Throws
/// std::system_error, with the handlers installed, when the query for the observer's executable
/// fails. Outside Windows there is no observer, and every call fails.
[[nodiscard]] CollectorStartResult StartCompactCollector(const fs::Path& crash_directory,
                                                         const fs::Path& install_directory);

/// Declares that this process is about to end with `code`. The last declared code counts. Does
/// nothing without a collector. May be called from any thread.
void RecordProcessExitCode(std::uint32_t code) noexcept;

/// Removes the session folder of a process whose start has found no observer: no other process
/// would know that this one ended in order. To be called at that end; a later crash is not
/// recorded.
void EndUnobservedSession() noexcept;

/// This process's session folder, absolute; empty without a collector.
[[nodiscard]] fs::Path CompactSessionDirectory();

}  // namespace zul
