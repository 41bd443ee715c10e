#include "apply/installation_changes.h"

#include <utility>

#include "core/failure.h"
#include "core/file_hash.h"
#include "core/system_error.h"
#include "core/text.h"

namespace zul {

namespace {

/// A file that exists but is taken for a new one would be replaced without a backup, and a rollback
/// would remove it. So when the query fails, an open decides.
bool TargetExists(const fs::Path& target) {
  std::error_code ec;
  const fs::EntryKind kind = fs::KindOf(target, fs::Links::kFollow, ec);
  if (kind == fs::EntryKind::kUnknown) return fs::OpenForRead(target, ec).is_open();
  return kind != fs::EntryKind::kNotFound;
}

std::string InjectedFailure(std::string_view context, const fs::Path& source,
                            const fs::Path& target) {
  return FormatFileFailure(context, source, target,
                           std::make_error_code(std::errc::permission_denied), 1) +
         " (fault injected)";
}

void Corrupt(const fs::Path& target) {
  constexpr std::string_view kText = "fault-injected rollback corruption";
  std::error_code ec;
  fs::File file = fs::CreateTruncatedFile(target, ec);
  // When the fault cannot be injected, the verification succeeds, and the caller notices that.
  if (file.is_open()) static_cast<void>(fs::WriteAll(file, kText.data(), kText.size(), ec));
}

bool HashForVerification(std::string_view role, const fs::Path& path, const KeepAlive& keep_alive,
                         std::string* digest, std::vector<std::string>* failures) {
  std::string error;
  if (ComputeFileSha256(path, digest, &error, keep_alive)) return true;
  failures->push_back("rollback verification failed for " + std::string(role) + " '" +
                      PathToUtf8(path) + "': " + error);
  return false;
}

void VerifyRestored(const RollbackRecord& record, const KeepAlive& keep_alive,
                    std::vector<std::string>* failures) {
  std::string backup_digest;
  std::string target_digest;
  if (!HashForVerification("backup", record.backup, keep_alive, &backup_digest, failures) ||
      !HashForVerification("target", record.target, keep_alive, &target_digest, failures) ||
      backup_digest == target_digest) {
    return;
  }
  failures->push_back("rollback verification hash mismatch: backup='" + PathToUtf8(record.backup) +
                      "', target='" + PathToUtf8(record.target) + "'.");
}

}  // namespace

InstallationChanges::InstallationChanges(fs::Path backup_root, const ApplyFaultInjection& faults,
                                         fs::KeepAlive keep_alive)
    : backup_root_(std::move(backup_root)),
      faults_(faults),
      retry_policy_{.keep_alive = std::move(keep_alive)} {}

bool InstallationChanges::PrepareBackups(std::string* error) {
  DiscardBackups();
  return MakeFolder(backup_root_, "Cannot create rollback backup directory: '", error);
}

bool InstallationChanges::RemoveRetired(const fs::Path& target, std::string* error) {
  const RollbackRecord record{target, backup_root_ / target.filename(), true};
  if (!RetryCopyFile(target, record.backup, "retired executable rollback backup failed", error,
                     retry_policy_)) {
    return false;
  }
  // Recorded before the removal, so that a removal that fails half way is undone too.
  records_.push_back(record);
  return RetryRemoveFile(target, "retired executable removal failed", error, retry_policy_);
}

bool InstallationChanges::Install(const StagedFile& file, std::string* error) {
  if (!MakeFolder(file.target.parent_path(), "Cannot create target directory for update: '",
                  error)) {
    return false;
  }
  RollbackRecord record{file.target, {}, false};
  if (TargetExists(file.target) && !BackUp(file, &record, error)) return false;
  if (!RetryReplaceFile(file.source, file.target, "apply update copy failed", error,
                        retry_policy_)) {
    return false;
  }
  records_.push_back(std::move(record));
  return true;
}

bool InstallationChanges::BackUp(const StagedFile& file, RollbackRecord* record,
                                 std::string* error) {
  record->backup = backup_root_ / file.relative;
  record->had_backup = true;
  return MakeFolder(record->backup.parent_path(), "Cannot create rollback path: '", error) &&
         RetryCopyFile(file.target, record->backup, "rollback backup copy failed", error,
                       retry_policy_);
}

/// Creates each folder once: most files are in the folder of the file before them.
bool InstallationChanges::MakeFolder(const fs::Path& folder, std::string_view failure_prefix,
                                     std::string* error) {
  if (made_folders_.contains(folder.native())) return true;
  std::error_code ec;
  if (!fs::CreateDirectories(folder, ec)) {
    return Fail(error, FormatSystemFailure(failure_prefix, folder, ec));
  }
  made_folders_.insert(folder.native());
  return true;
}

std::vector<std::string> InstallationChanges::RollBack() {
  std::vector<std::string> failures;
  for (auto record = records_.rbegin(); record != records_.rend(); ++record) {
    if (retry_policy_.keep_alive) retry_policy_.keep_alive();
    Undo(*record, &failures);
  }
  return failures;
}

void InstallationChanges::Undo(const RollbackRecord& record, std::vector<std::string>* failures) {
  if (!record.had_backup) {
    RemoveAdded(record.target, failures);
  } else if (Restore(record, failures)) {
    VerifyRestored(record, retry_policy_.keep_alive, failures);
  }
}

void InstallationChanges::RemoveAdded(const fs::Path& target, std::vector<std::string>* failures) {
  std::error_code ec;
  if (std::exchange(faults_.fail_first_remove, false)) {
    failures->push_back(InjectedFailure("rollback remove failed", {}, target));
  } else if (fs::Remove(target, ec); ec) {
    failures->push_back(FormatFileFailure("rollback remove failed", {}, target, ec, 1));
  }

  const fs::EntryKind kind = fs::KindOf(target, fs::Links::kDoNotFollow, ec);
  if (kind == fs::EntryKind::kNotFound) return;
  const std::string subject =
      "rollback verification failed: newly installed target '" + PathToUtf8(target) + "' ";
  failures->push_back(kind == fs::EntryKind::kUnknown
                          ? subject + "could not be inspected (" + DescribeSystemError(ec) + ")."
                          : subject + "still exists after removal.");
}

/// True when the content of the backup was put back, so that there is something to verify.
bool InstallationChanges::Restore(const RollbackRecord& record,
                                  std::vector<std::string>* failures) {
  constexpr std::string_view kContext = "rollback restore failed";
  if (std::exchange(faults_.fail_first_restore, false)) {
    failures->push_back(InjectedFailure(kContext, record.backup, record.target));
    return false;
  }
  std::string error;
  if (!RetryReplaceFile(record.backup, record.target, kContext, &error, retry_policy_)) {
    failures->push_back(std::move(error));
    return false;
  }
  if (std::exchange(faults_.corrupt_first_restore, false)) Corrupt(record.target);
  return true;
}

void InstallationChanges::DiscardBackups() {
  std::error_code ignored;
  fs::RemoveTree(backup_root_, ignored, retry_policy_.keep_alive);
}

}  // namespace zul
