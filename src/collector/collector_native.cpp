#include "collector/collector.h"

namespace zul {

// The observer needs the handle inheritance and the exception filters of Windows. On other systems
// no process is observed.

CollectorStartResult StartCompactCollector(const fs::Path& /*crash_directory*/,
                                           const fs::Path& /*install_directory*/) {
  return {.ready = false, .session_directory = {}, .failure_reason = "collector_launch_failed"};
}

void RecordProcessExitCode(std::uint32_t /*code*/) noexcept {}

void EndUnobservedSession() noexcept {}

fs::Path CompactSessionDirectory() {
  return {};
}

}  // namespace zul
