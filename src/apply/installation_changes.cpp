#include "apply/installation_changes.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <optional>
#include <utility>

#include "core/failure.h"
#include "core/system_error.h"
#include "core/text.h"

namespace zul {

namespace {

/// How long, and how often, a rollback tries again what failed.
constexpr std::chrono::milliseconds kPatience{30'000};
constexpr std::chrono::milliseconds kPause{1'000};

/// Most of the time these wait for the device. More of them only compete for the processor.
constexpr unsigned kCopyThreads = 6;

/// What cannot be determined counts as a file that exists: it gets a backup. A file that is taken
/// for a new one gets none, and a rollback removes it. So when the query fails, an open decides.
bool MayExist(const StagedFile& file) {
  std::error_code ec;
  fs::EntryKind kind = file.target_kind;
  if (kind == fs::EntryKind::kLink) kind = fs::KindOf(file.target, fs::Links::kFollow, ec);
  if (kind != fs::EntryKind::kUnknown) return kind != fs::EntryKind::kNotFound;
  return fs::OpenForRead(file.target, ec).is_open() || !IsNotFoundError(ec);
}

bool IsGone(const fs::Path& path, std::error_code& ec) {
  return fs::KindOf(path, fs::Links::kDoNotFollow, ec) == fs::EntryKind::kNotFound;
}

/// Nothing when one of the files cannot be read.
std::optional<bool> HaveSameContent(const fs::Path& a, const fs::Path& b,
                                    const KeepAlive& keep_alive) {
  FileDigest first;
  FileDigest second;
  if (!ReadFileDigest(a, &first, nullptr, keep_alive) ||
      !ReadFileDigest(b, &second, nullptr, keep_alive)) {
    return std::nullopt;
  }
  return first == second;
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

bool ReadForVerification(std::string_view role, const fs::Path& path, const KeepAlive& keep_alive,
                         FileDigest* digest, std::vector<std::string>* failures) {
  std::string error;
  if (ReadFileDigest(path, digest, &error, keep_alive)) return true;
  failures->push_back("rollback verification failed for " + std::string(role) + " '" +
                      PathToUtf8(path) + "': " + error);
  return false;
}

void VerifyRestored(const RollbackRecord& record, const KeepAlive& keep_alive,
                    std::vector<std::string>* failures) {
  FileDigest backup;
  FileDigest target;
  if (!ReadForVerification("backup", record.backup, keep_alive, &backup, failures) ||
      !ReadForVerification("target", record.target, keep_alive, &target, failures) ||
      backup == target) {
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
      retry_policy_{.keep_alive = std::move(keep_alive), .leftovers = &leftovers_},
      prepared_(kCopyThreads, kFilesAhead, retry_policy_.keep_alive) {}

bool InstallationChanges::PrepareBackups(std::string* error) {
  DiscardBackups();
  return MakeFolder(backup_root_, "Cannot create rollback backup directory: '", error);
}

bool InstallationChanges::RemoveRetired(const fs::Path& target, std::string* error) {
  const fs::Path backup = backup_root_ / target.filename();
  if (!RetryCopyFile(target, backup, "retired executable rollback backup failed", error,
                     retry_policy_)) {
    DropBackup(backup);  // the restores of the other files may need its room
    return false;
  }
  records_.push_back({target.native(), backup.native(), true});
  return RetryRemoveFile(target, "retired executable removal failed", error, retry_policy_);
}

void InstallationChanges::Prepare(const StagedFile& file) {
  Prepared prepared;
  prepared.source = file.source;
  prepared.target = file.target;
  prepared.target_folder = file.target_folder;
  if (MayExist(file)) {
    prepared.backup = backup_root_ / file.relative;
    static_cast<void>(MakeFolder(prepared.backup.parent_path(), "Cannot create rollback path: '",
                                 &prepared.failure));
  }
  RetryPolicy policy = retry_policy_;
  policy.keep_alive = nullptr;  // only the thread of the window may call it
  prepared_.Hand([prepared = std::move(prepared), policy = std::move(policy)]() mutable {
    MakeCopies(&prepared, std::move(policy));
    return std::move(prepared);
  });
}

/// Runs on another thread.
void InstallationChanges::MakeCopies(Prepared* file, RetryPolicy policy) {
  policy.leftovers = &file->leftovers;
  try {
    if (!file->failure.empty()) return;
    if (!file->backup.empty() &&
        !RetryCopyFile(file->target, file->backup, "rollback backup copy failed", &file->failure,
                       policy)) {
      return;
    }
    if (file->target_folder != nullptr) {
      file->copy = CopyEarly(file->source, file->target, policy);
    }
  } catch (const std::exception&) {
    file->exception = std::current_exception();
  }
}

InstallationChanges::Prepared InstallationChanges::TakePrepared() {
  Prepared file = prepared_.Take();
  std::ranges::move(file.leftovers, std::back_inserter(leftovers_));
  return file;
}

bool InstallationChanges::InstallNext(std::string* error) {
  const Prepared file = TakePrepared();
  const bool has_folder =  // a folder that is held is there
      file.target_folder != nullptr ||
      MakeFolder(file.target.parent_path(), "Cannot create target directory for update: '", error);
  if (!has_folder || file.exception || !file.failure.empty()) {
    Drop(file);
    if (file.exception) std::rethrow_exception(file.exception);
    return has_folder && Fail(error, file.failure);
  }
  const bool had_backup = !file.backup.empty();
  records_.push_back({file.target.native(), file.backup.native(), had_backup});
  const auto put_in_place = had_backup ? RetryReplaceFile : RetryPlaceNewFile;
  if (put_in_place(file.source, file.target, "apply update copy failed", error, retry_policy_,
                   file.copy ? &*file.copy : nullptr)) {
    return true;
  }
  if (IsUnchanged(records_.back(), file.source)) {
    DropBackup(file.backup);
    records_.pop_back();
  }
  return false;
}

void InstallationChanges::DropPrepared() {
  while (!prepared_.empty()) {
    try {
      Drop(TakePrepared());
    } catch (const std::exception&) {
      // It stays, and so do the backups that the rollback needs.
    }
  }
}

void InstallationChanges::Drop(const Prepared& file) {
  DropBackup(file.backup);
  if (file.copy) DropEarlyCopy(*file.copy, retry_policy_);
}

/// Inspects the target of a replacement that failed, because a share may report a move as failed
/// that has happened. A file that cannot be read counts as changed when it has a backup, which is
/// then restored. A file without a backup must have the new content to be ours: it would be
/// removed.
bool InstallationChanges::IsUnchanged(const RollbackRecord& record, const fs::Path& source) const {
  std::optional<bool> same;
  TryAgain([&] {
    std::error_code ec;
    if (!record.had_backup && IsGone(record.target, ec)) return true;
    same = HaveSameContent(record.target, record.had_backup ? fs::Path(record.backup) : source,
                           retry_policy_.keep_alive);
    return same.has_value();
  });
  return same.value_or(false) == record.had_backup;
}

void InstallationChanges::DropBackup(const fs::Path& backup) {
  if (backup.empty()) return;
  std::error_code ec;
  fs::Remove(backup, ec);
  if (ec) leftovers_.push_back(backup);
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
  std::vector<OpenUndo> open;
  for (auto record = records_.rbegin(); record != records_.rend(); ++record) {
    if (retry_policy_.keep_alive) retry_policy_.keep_alive();
    OpenUndo undo = UndoFirst(*record);
    if (!undo.failures.empty()) open.push_back(std::move(undo));
  }
  TryAgain([&] {
    for (OpenUndo& undo : open) UndoAgain(&undo);
    const bool cleared = RemoveLeftoversOnce();
    return cleared && std::ranges::all_of(open, &OpenUndo::is_final);
  });
  std::vector<std::string> failures;
  for (OpenUndo& undo : open) std::ranges::move(undo.failures, std::back_inserter(failures));
  return failures;
}

/// The first try. Its failures are empty when the change is undone and verified.
InstallationChanges::OpenUndo InstallationChanges::UndoFirst(const RollbackRecord& record) {
  OpenUndo undo{&record, {}};
  const ApplyFaultInjection before = faults_;
  try {
    Undo(record, &undo.failures);
  } catch (const std::exception& exception) {
    undo.failures.push_back("rollback of '" + PathToUtf8(record.target) +
                            "' was interrupted: " + exception.what());
  }
  undo.is_final = faults_ != before;  // an injected failure stays
  return undo;
}

/// Calls `attempt` until it returns true, for up to 30 s.
void InstallationChanges::TryAgain(const std::function<bool()>& attempt) const {
  RetryPolicy pause = retry_policy_;
  pause.wait = kPause;
  const auto end = std::chrono::steady_clock::now() + kPatience;
  for (auto waited = 0 * kPause; !attempt() && waited < kPatience; waited += kPause) {
    if (std::chrono::steady_clock::now() >= end) break;
    WaitBeforeRetry(pause);
  }
}

/// One more try, which ends the undo when the change is undone and verified. The texts of a failure
/// stay those of the first pass.
void InstallationChanges::UndoAgain(OpenUndo* undo) {
  if (undo->is_final) return;
  if (retry_policy_.keep_alive) retry_policy_.keep_alive();
  try {
    undo->is_final =
        undo->record->had_backup ? RestoreAgain(undo) : RemoveAddedAgain(undo->record->target);
  } catch (const std::exception&) {
    return;  // and one more
  }
  if (undo->is_final) undo->failures.clear();
}

bool InstallationChanges::RemoveAddedAgain(const fs::Path& target) {
  std::error_code ec;
  fs::Remove(target, ec);
  return IsGone(target, ec);
}

bool InstallationChanges::RestoreAgain(OpenUndo* undo) {
  const fs::Path target = undo->record->target;
  const fs::Path backup = undo->record->backup;
  const KeepAlive& keep_alive = retry_policy_.keep_alive;
  // Read once: the backup may be moved below.
  if (undo->old_content.sha256.empty() &&
      !ReadFileDigest(backup, &undo->old_content, nullptr, keep_alive)) {
    return false;
  }
  const auto is_restored = [&] {
    FileDigest content;
    return ReadFileDigest(target, &content, nullptr, keep_alive) && content == undo->old_content;
  };
  if (is_restored()) return true;
  const AttemptFailure failure = ReplaceFileOnce(backup, target, retry_policy_);
  std::error_code ignored;
  if (failure && MeaningOf(*failure) == ErrorMeaning::kDiskFull &&
      !fs::MoveReplacingWhole(backup, target, ignored)) {
    return false;
  }
  return is_restored();
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

  if (IsGone(target, ec)) return;
  const std::string subject =
      "rollback verification failed: newly installed target '" + PathToUtf8(target) + "' ";
  failures->push_back(ec ? subject + "could not be inspected (" + DescribeSystemError(ec) + ")."
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

void InstallationChanges::RemoveLeftovers() {
  TryAgain([this] { return RemoveLeftoversOnce(); });
}

bool InstallationChanges::RemoveLeftoversOnce() {
  std::erase_if(leftovers_, [](const fs::Path& path) {
    std::error_code ec;
    fs::Remove(path, ec);
    return !ec;
  });
  return leftovers_.empty();
}

}  // namespace zul
