#include "collector/collector.h"

namespace zul {

// The observer is bound to Windows' inheritance of handles and its exception filters; elsewhere no
// process is observed, and everything goes on without.

CollectorStartResult StartCompactCollector(const fs::Path& /*crash_directory*/,
                                           const fs::Path& /*install_directory*/) {
  return {.ready = false, .session_directory = {}, .failure_reason = "collector_launch_failed"};
}

void RecordProcessExitCode(std::uint32_t /*code*/) noexcept {}

fs::Path CompactSessionDirectory() {
  return {};
}

}  // namespace zul
