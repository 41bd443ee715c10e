#pragma once

// The changes of one apply to an installation, and how they are undone.
//
// A file that exists is copied to the backup folder before it is replaced or removed. Each change
// has a record: a removal from before it starts, a replacement from its success on, because a
// replacement that fails leaves the target unchanged. The records are kept in memory only.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "apply/apply_targets.h"
#include "apply/retry_file_ops.h"

namespace zul {

/// Failures to inject into an apply. The product never injects any.
struct ApplyFaultInjection {
  std::uint32_t fail_after_replacements = 0;  ///< 0 means never
  bool fail_first_restore = false;
  bool fail_first_remove = false;
  bool corrupt_first_restore = false;
};

/// One change to the installation.
struct RollbackRecord {
  fs::Path target;  ///< the installed file
  fs::Path backup;  ///< its copy; empty for a file that did not exist before
  bool had_backup = false;
};

class InstallationChanges {
 public:
  /// `backup_root` is the folder for the backups. Of `faults` only those of a rollback are
  /// injected. `keep_alive` is called during all long operations; it may be empty.
  InstallationChanges(fs::Path backup_root, const ApplyFaultInjection& faults,
                      fs::KeepAlive keep_alive);

  /// Removes what an earlier run left at the backup folder's path and creates the folder. Here and
  /// below, `error` receives the reason when the result is false.
  [[nodiscard]] bool PrepareBackups(std::string* error);

  /// Backs up and removes a retired executable of the target folder's top level.
  [[nodiscard]] bool RemoveRetired(const fs::Path& target, std::string* error);

  /// Puts a copy of `file.source` in the place of `file.target`, which is backed up first when it
  /// exists. Missing folders are created; they stay when the change is undone.
  [[nodiscard]] bool Install(const StagedFile& file, std::string* error);

  /// The number of changes, including a removal that failed.
  [[nodiscard]] std::size_t count() const { return records_.size(); }

  /// Undoes every change, the last one first, and verifies the result: the SHA-256 of each restored
  /// file equals that of its backup, and each file that was added is gone. A failure on one record
  /// does not stop the others. Returns the texts of all failures in the order in which they
  /// occurred; none means that everything is restored and verified. The backups are kept.
  [[nodiscard]] std::vector<std::string> RollBack();

  /// Removes the backup folder. A failure is ignored.
  void DiscardBackups();

 private:
  [[nodiscard]] bool BackUp(const StagedFile& file, RollbackRecord* record, std::string* error);
  [[nodiscard]] bool MakeFolder(const fs::Path& folder, std::string_view failure_prefix,
                                std::string* error);

  // The parts of a rollback. Each appends the texts of its failures to `failures`.
  void Undo(const RollbackRecord& record, std::vector<std::string>* failures);
  void RemoveAdded(const fs::Path& target, std::vector<std::string>* failures);
  [[nodiscard]] bool Restore(const RollbackRecord& record, std::vector<std::string>* failures);

  const fs::Path backup_root_;
  ApplyFaultInjection faults_;  // each fault of the rollback is switched off when it is injected
  const RetryPolicy retry_policy_;
  std::unordered_set<fs::Path::string_type> made_folders_;
  std::vector<RollbackRecord> records_;  // in the order of the changes
};

}  // namespace zul
