#pragma once

// The observed side of the collector: a process that starts it gets a second process of the same
// build beside it, which holds a handle to it, outlives it, and writes down how it ended.

#include <cstdint>
#include <string>

#include "core/file_layer.h"

namespace zul {

struct CollectorStartResult {
  bool ready = false;             ///< the observer answered
  std::string session_directory;  ///< UTF-8; empty when none was made
  std::string failure_reason;  ///< a reason word such as collector_launch_failed; empty when ready
};

/// Makes this process's session folder in `crash_directory`, takes over its unhandled exceptions
/// and `std::terminate`, and starts the observer from `install_directory`. At most once effective
/// in a process; a repeated call tells whether the observer still lives. Blocks until the observer
/// answers, at most about 6 s. A failure may leave the crash handlers in place, so that a crash is
/// still recorded, without an observer. Throws std::system_error, with the handlers in place, when
/// the system does not tell whether the observer's executable is there. Only Windows has observers.
[[nodiscard]] CollectorStartResult StartCompactCollector(const fs::Path& crash_directory,
                                                         const fs::Path& install_directory);

/// Declares that this process means to end with `code`. The last code declared counts. Does nothing
/// without a collector. From any thread.
void RecordProcessExitCode(std::uint32_t code) noexcept;

/// This process's session folder, absolute; empty without a collector.
[[nodiscard]] fs::Path CompactSessionDirectory();

}  // namespace zul
