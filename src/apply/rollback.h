#pragma once

// Undoing the changes of an apply. Proved afterwards: the SHA-256 of each restored file equals its
// backup's, and each file that the update added is gone. Folders that the apply made stay, empty.

#include <string>
#include <vector>

#include "apply/apply.h"
#include "core/file_layer.h"

namespace zul {

/// One change to the installation.
struct RollbackRecord {
  fs::Path target;  ///< the installed file
  fs::Path backup;  ///< empty for a file that did not exist before
  bool had_backup = false;
};

/// Undoes `records` from the last to the first and returns the text of each failure, in the order
/// in which they arose; none means that everything is restored and verified. A failure on one
/// record does not keep the others from being undone. `window` (may be null) is kept alive
/// meanwhile; `faults` are the faults to inject.
[[nodiscard]] std::vector<std::string> RollBackChanges(const std::vector<RollbackRecord>& records,
                                                       const ApplyFaultInjection& faults,
                                                       UpdateProgressWindow* window);

}  // namespace zul
