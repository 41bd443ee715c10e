#pragma once

// The changes of one apply to an installation, and how they are undone.
//
// A file that exists is copied to the backup folder before it is replaced or removed. Each change
// has a record from before it starts, so that an exception in the middle of it is undone too. A
// replacement that failed and left the target unchanged loses its record and its backup: there is
// nothing to undo, and on a full volume the restores need the room. The records are kept in memory
// only.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "apply/apply_targets.h"
#include "apply/retry_file_ops.h"
#include "core/file_hash.h"
#include "core/ordered_work.h"

namespace zul {

/// Failures to inject into an apply. The product never injects any.
struct ApplyFaultInjection {
  std::uint32_t fail_after_replacements = 0;  ///< 0 means never
  bool fail_first_restore = false;
  bool fail_first_remove = false;
  bool corrupt_first_restore = false;

  bool operator==(const ApplyFaultInjection&) const = default;
};

/// One change to the installation. The paths are texts: as `fs::Path`, which keeps each part of a
/// path as a path of its own, those of 20,000 files took 30 MB more.
struct RollbackRecord {
  fs::Path::string_type target;  ///< the installed file
  fs::Path::string_type backup;  ///< its copy; empty for a file that did not exist before
  bool had_backup = false;
};

class InstallationChanges {
 public:
  /// `backup_root` is the folder for the backups. Of `faults` only those of a rollback are
  /// injected. `keep_alive` is called during all long operations; it may be empty.
  InstallationChanges(fs::Path backup_root, const ApplyFaultInjection& faults,
                      fs::KeepAlive keep_alive);
  InstallationChanges(const InstallationChanges&) = delete;
  InstallationChanges& operator=(const InstallationChanges&) = delete;

  /// Removes what an earlier run left at the backup folder's path and creates the folder. Here and
  /// below, `error` receives the reason when the result is false.
  [[nodiscard]] bool PrepareBackups(std::string* error);

  /// Backs up and removes a retired executable of the target folder's top level.
  [[nodiscard]] bool RemoveRetired(const fs::Path& target, std::string* error);

  // A file is installed in two steps, so that the next files are copied while a file is replaced.

  /// The most files that are prepared while another one is replaced, once this is allowed.
  static constexpr std::size_t kFilesAhead = 8;

  /// Allows that more than one file is prepared. Call it when the volumes have room for them.
  void WorkAhead() { works_ahead_ = true; }

  /// Begins the backup of `file.target`, if it exists, and then the copy beside the target, if its
  /// folder is held, on another thread. Does not change the target; call it only while there is
  /// room. A failure is that of the file's `InstallNext`.
  void Prepare(const StagedFile& file);

  /// True when a file must be installed before the next one can be prepared.
  [[nodiscard]] bool IsFull() const { return prepared_.full() || (HasPrepared() && !works_ahead_); }

  /// True while a file is prepared and not installed.
  [[nodiscard]] bool HasPrepared() const { return !prepared_.empty(); }

  /// Puts a copy of the source of the file that was prepared first in the place of its target, when
  /// the target's backup is complete. A target that seemed not to exist is never replaced: when
  /// there is a file after all, that is a failure. Missing folders are created; they stay when the
  /// change is undone. Call it only while a file is prepared.
  [[nodiscard]] bool InstallNext(std::string* error);

  /// Removes the backups and copies of the files that are prepared and not installed: the restores
  /// may need their room.
  void DropPrepared();

  /// The number of changes, including a removal that failed.
  [[nodiscard]] std::size_t count() const { return records_.size(); }

  /// Undoes every change, the last one first, and verifies the result: each restored file has the
  /// size and the SHA-256 of its backup, and each file that was added is gone. A failure on one
  /// record does not stop the others. What failed is tried again for up to 30 s, because a virus
  /// scanner or a backup program may have the file open. Returns the texts of all failures that
  /// remain, in the order in which they occurred; none means that everything is restored and
  /// verified. The backups are kept, except where the volume has no room for a copy: then the
  /// backup itself is moved into place.
  [[nodiscard]] std::vector<std::string> RollBack();

  /// Removes the backup folder. A failure is ignored.
  void DiscardBackups();

  /// Removes the temporary copies that another process has kept from being removed. Tries for up to
  /// 30 s. A failure is ignored.
  void RemoveLeftovers();

 private:
  /// A change whose first undo failed.
  struct OpenUndo {
    const RollbackRecord* record;
    std::vector<std::string> failures;  ///< of the first pass; empty once the change is undone
    bool is_final = false;              ///< then it is not tried again
    FileDigest old_content{};           ///< of the backup, once it has been read
  };

  struct Prepared {
    fs::Path source;
    fs::Path target;
    std::shared_ptr<const fs::File> target_folder;  ///< held until the file is installed
    fs::Path backup;                                ///< empty for a new file
    std::string failure;  ///< of the backup; empty when it is made or not needed
    std::optional<EarlyCopy> copy;
    std::vector<fs::Path> leftovers;  ///< of the copy
    std::exception_ptr exception;     ///< thrown by one of the two
  };

  static void MakeCopies(Prepared* file, RetryPolicy policy);
  [[nodiscard]] Prepared TakePrepared();
  void Drop(const Prepared& file);
  void DropBackup(const fs::Path& backup);
  [[nodiscard]] bool IsUnchanged(const RollbackRecord& record, const fs::Path& source) const;
  [[nodiscard]] bool MakeFolder(const fs::Path& folder, std::string_view failure_prefix,
                                std::string* error);

  // The parts of a rollback's first pass. Each appends the texts of its failures to `failures`.
  [[nodiscard]] OpenUndo UndoFirst(const RollbackRecord& record);
  void Undo(const RollbackRecord& record, std::vector<std::string>* failures);
  void RemoveAdded(const fs::Path& target, std::vector<std::string>* failures);
  [[nodiscard]] bool Restore(const RollbackRecord& record, std::vector<std::string>* failures);

  // What is tried again.
  void TryAgain(const std::function<bool()>& attempt) const;
  void UndoAgain(OpenUndo* undo);
  [[nodiscard]] bool RestoreAgain(OpenUndo* undo);
  [[nodiscard]] static bool RemoveAddedAgain(const fs::Path& target);
  [[nodiscard]] bool RemoveLeftoversOnce();

  const fs::Path backup_root_;
  ApplyFaultInjection faults_;  // each fault of the rollback is switched off when it is injected
  std::vector<fs::Path> leftovers_;  // files of ours that could not be removed
  const RetryPolicy retry_policy_;
  std::unordered_set<fs::Path::string_type> made_folders_;
  std::vector<RollbackRecord> records_;  // in the order of the changes
  bool works_ahead_ = false;
  OrderedWork<Prepared> prepared_;
};

}  // namespace zul
