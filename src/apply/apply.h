#pragma once

// Installing a staged tree over an installation as one transaction: every staged file ends up in
// the target folder, or every change is undone and proved by SHA-256, or the text says plainly that
// the folder is damaged and where the backups are. The changes made so far live in memory only; a
// process that dies in the middle leaves every replaced file's old content in "rollback_backup"
// beside the staged tree.

#include <cstdint>
#include <string>

#include "core/path.h"
#include "ui/progress_window.h"

namespace zul {

enum class ApplyOutcomeKind : std::uint32_t {
  kApplied = 0,
  kFailedBeforeChange = 1,
  kRolledBack = 2,
  kRecoveryRequired = 3,
};

struct ApplyOutcome {
  ApplyOutcomeKind kind = ApplyOutcomeKind::kFailedBeforeChange;
  std::string message;      ///< the final error text; empty for kApplied
  std::string backup_root;  ///< UTF-8; empty for kApplied
};

/// Borrowed for the length of the call.
struct ApplyCloseContext {
  UpdateProgressWindow* progress_window = nullptr;  ///< may be null
  bool force_close = false;
};

/// Faults that a caller may ask for. The product never does.
struct ApplyFaultInjection {
  std::uint32_t fail_after_replacements = 0;  ///< 0 switches it off
  bool fail_first_restore = false;
  bool fail_first_remove = false;
  bool corrupt_first_restore = false;
};

/// Applies `staged_root` to `target_root`. True only for kApplied. `error`, `outcome` and `faults`
/// may be null.
[[nodiscard]] bool ApplyStagedUpdate(const fs::Path& staged_root, const fs::Path& target_root,
                                     std::uint32_t main_pid, ApplyCloseContext* close_context,
                                     bool require_signatures, std::string* error,
                                     ApplyOutcome* outcome, const ApplyFaultInjection* faults);

}  // namespace zul
