#pragma once

// Installs a staged tree over an installation as one transaction. An apply ends in one of three
// ways: every staged file is installed; every change is undone and each restored file is verified
// by its SHA-256; or the message says that the installation is damaged and where the backups are.
//
// The records of the changes are kept in memory only. A process that dies during the changes leaves
// the old content of every replaced file in the folder "rollback_backup" beside the staged tree.

#include <cstdint>
#include <string>

#include "apply/installation_changes.h"
#include "apply/target_lock.h"
#include "core/path.h"

namespace zul {

/// How an apply ended.
enum class ApplyOutcomeKind : std::uint32_t {
  kApplied = 0,
  kFailedBeforeChange = 1,  ///< the installation is untouched
  kRolledBack = 2,          ///< the installation is restored and verified
  kRecoveryRequired = 3,    ///< the installation is damaged; the backups are kept
};

struct ApplyOutcome {
  ApplyOutcomeKind kind = ApplyOutcomeKind::kFailedBeforeChange;
  std::string message;      ///< the final error text; empty for kApplied
  std::string backup_root;  ///< UTF-8; empty for kApplied and until the folder is needed
};

/// Applies `staged_root` to `target_root`. Returns true only for kApplied. Waits for locks, so it
/// can block for minutes; the window is kept alive meanwhile. `error` receives the same text as
/// `outcome->message`. `close_context`, `error`, `outcome` and `faults` may be null.
[[nodiscard]] bool ApplyStagedUpdate(const fs::Path& staged_root, const fs::Path& target_root,
                                     std::uint32_t main_pid, ApplyCloseContext* close_context,
                                     bool require_signatures, std::string* error,
                                     ApplyOutcome* outcome, const ApplyFaultInjection* faults);

}  // namespace zul
