#include "apply/apply.h"

#include <algorithm>
#include <unordered_set>
#include <utility>
#include <vector>

#include "apply/retired_executables.h"
#include "apply/retry_file_ops.h"
#include "apply/rollback.h"
#include "apply/staged_tree.h"
#include "apply/target_lock.h"
#include "core/process_environment.h"
#include "core/text.h"
#include "package/payload_signatures.h"
#include "trace/chain_events.h"

namespace zul {

namespace {

constexpr StagedTreeTexts kValidationTexts = {
    "Cannot enumerate staged update tree for validation: '",
    "Cannot resolve staged relative path during validation for '",
    "Staged update contains an unsafe payload path: '"};

constexpr StagedTreeTexts kInstallTexts = {
    "Cannot enumerate staged update tree: '", "Cannot resolve staged relative path for '",
    "Staged update changed during apply and now contains an unsafe payload path: '"};

/// The resolved path of this process's executable; empty when it cannot be had.
fs::Path ResolveOwnExecutable() {
  constexpr std::uint32_t kMaxPathUnits = 260;
  const fs::Path path = CurrentExecutablePath(kMaxPathUnits);
  if (path.empty()) return {};
  std::error_code ec;
  fs::Path resolved = fs::WeaklyCanonical(path, ec);
  return ec ? fs::Path() : resolved;
}

/// Creates folders, each one once: most files lie in a folder that one before them needed too.
class FolderMaker {
 public:
  bool Ensure(const fs::Path& folder, std::error_code& ec) {
    if (made_.contains(folder.native())) return true;
    if (!fs::CreateDirectories(folder, ec)) return false;
    made_.insert(folder.native());
    return true;
  }

 private:
  std::unordered_set<fs::Path::string_type> made_;
};

enum class SignaturePolicy { kNone, kRequireTrusted };

/// One apply. Each stage returns false with its text in `error_` when it fails.
class Transaction {
 public:
  Transaction(const fs::Path& staged_root, const fs::Path& target_root, std::uint32_t main_pid,
              ApplyCloseContext* close_context, SignaturePolicy signature_policy,
              const ApplyFaultInjection& faults, std::string& error, ApplyOutcome& outcome)
      : staged_root_(staged_root),
        target_root_(target_root),
        main_pid_(main_pid),
        close_context_(close_context),
        window_(close_context != nullptr ? close_context->progress_window : nullptr),
        signature_policy_(signature_policy),
        faults_(faults),
        error_(error),
        outcome_(outcome),
        own_executable_(ResolveOwnExecutable()) {}

  bool Run() {
    if (!ValidateStagedTree() || !VerifySignatures() || !ListRetired() || !WaitForLocks() ||
        !PrepareBackupRoot()) {
      return FailBeforeChange();
    }
    if (RemoveRetired() && InstallStagedFiles()) return Commit();
    return changes_.empty() ? FailBeforeChange() : RollBack();
  }

 private:
  // The stages that change nothing in the target folder.

  bool ValidateStagedTree() {
    std::error_code ec;
    if (fs::KindOf(staged_root_, fs::Links::kFollow, ec) != fs::EntryKind::kDirectory) {
      error_ = "Staged update directory is missing: '" + PathToUtf8(staged_root_) + "'.";
      return false;
    }
    return WalkStagedTree(kValidationTexts, StagedTreeWalk::Resolution::kEachFile,
                          [this](const StagedFile& file) {
                            KeepWindowAlive();
                            AddToLockList(file.target);
                            return true;
                          });
  }

  bool VerifySignatures() {
    const bool required = signature_policy_ == SignaturePolicy::kRequireTrusted;
    std::vector<std::string> checked;
    const PayloadSignatureVerifier verifier = [this](const std::string& path) {
      UpdatePayloadBinarySignatureResult result;
      RunKeepingAlive([&] { result = VerifyBinarySignature(path); }, retry_policy_.keep_alive);
      return result;
    };
    if (!VerifyStagedPayloadSignatures(staged_root_, required, verifier, &checked, &error_)) {
      return false;
    }
    if (required) {
      EmitChainEvent("payload_binary_signature_validate",
                     {{"checked_pe_files", std::to_string(checked.size())},
                      {"policy", "require_trusted_authenticode"}});
    }
    return true;
  }

  bool ListRetired() {
    if (!ListRetiredExecutables(staged_root_, target_root_, &retired_, &error_)) return false;
    for (const fs::Path& target : retired_) AddToLockList(target);
    return true;
  }

  /// Code that is in use is what the application and its neighbours hold; other files are left to
  /// the retries of each replacement.
  void AddToLockList(const fs::Path& target) {
    const std::string extension = AsciiLower(PathToUtf8(target.extension()));
    if (extension == ".dll" || extension == ".exe") lock_list_.push_back(target);
  }

  bool WaitForLocks() {
    std::sort(lock_list_.begin(), lock_list_.end());
    lock_list_.erase(std::unique(lock_list_.begin(), lock_list_.end()), lock_list_.end());
    return std::all_of(lock_list_.begin(), lock_list_.end(), [this](const fs::Path& target) {
      KeepWindowAlive();
      return ResolveTargetLock(target, target_root_, main_pid_, close_context_, error_);
    });
  }

  /// Throws away what an earlier failed run left at the same place.
  bool PrepareBackupRoot() {
    backup_root_ = staged_root_.parent_path() / "rollback_backup";
    outcome_.backup_root = PathToUtf8(backup_root_);
    std::error_code ec;
    fs::RemoveTree(backup_root_, ec, retry_policy_.keep_alive);
    return MakeFolder(backup_root_, "Cannot create rollback backup directory: '");
  }

  // The stages that change it.

  bool RemoveRetired() {
    for (const fs::Path& target : retired_) {
      KeepWindowAlive();
      const fs::Path name = target.filename();
      const RollbackRecord record{target, backup_root_ / name, true};
      if (!RetryCopyFile(target, record.backup, "retired executable rollback backup failed",
                         &error_, retry_policy_)) {
        return false;
      }
      // Before the removal, so that one which fails half way is undone too.
      changes_.push_back(record);
      if (!RetryRemoveFile(target, "retired executable removal failed", &error_, retry_policy_))
        return false;
      EmitChainEvent("retired_install_executable_removed",
                     {{"path", PathToUtf8(name)}, {"rollback", "protected"}});
    }
    return true;
  }

  bool InstallStagedFiles() {
    return WalkStagedTree(kInstallTexts, StagedTreeWalk::Resolution::kEachFolder,
                          [this](const StagedFile& file) {
                            KeepWindowAlive();
                            return Install(file) && !InjectedFailure();
                          });
  }

  bool Install(const StagedFile& file) {
    if (!MakeFolder(file.target.parent_path(), "Cannot create target directory for update: '")) {
      return false;
    }
    RollbackRecord record{file.target, {}, false};
    if (Exists(file.target) && !BackUp(file, &record)) return false;
    if (!RetryReplaceFile(file.source, file.target, "apply update copy failed", &error_,
                          retry_policy_)) {
      return false;  // the target is as it was: nothing to undo
    }
    changes_.push_back(std::move(record));
    return true;
  }

  bool BackUp(const StagedFile& file, RollbackRecord* record) {
    record->backup = backup_root_ / file.relative;
    record->had_backup = true;
    return MakeFolder(record->backup.parent_path(), "Cannot create rollback path: '") &&
           RetryCopyFile(file.target, record->backup, "rollback backup copy failed", &error_,
                         retry_policy_);
  }

  bool InjectedFailure() {
    if (faults_.fail_after_replacements == 0) return false;
    if (changes_.size() < faults_.fail_after_replacements) return false;
    error_ = "fault injection: apply failed after " + std::to_string(changes_.size()) +
             " successful replacement(s).";
    return true;
  }

  // The ways out.

  bool Commit() {
    std::error_code ignored;
    fs::RemoveTree(backup_root_, ignored, retry_policy_.keep_alive);
    outcome_ = {ApplyOutcomeKind::kApplied, {}, {}};
    return true;
  }

  bool FailBeforeChange() { return Fail(ApplyOutcomeKind::kFailedBeforeChange); }

  bool RollBack() {
    const std::string cause = error_;
    const std::string record_count = std::to_string(changes_.size());
    EmitChainEvent("rollback_start",
                   {{"backup_root", outcome_.backup_root}, {"record_count", record_count}});
    const std::vector<std::string> failures = RollBackChanges(changes_, faults_, window_);
    if (failures.empty()) {
      error_ = cause + " Rollback completed and every restored target was verified.";
      EmitChainEvent("rollback_ok",
                     {{"backup_root", outcome_.backup_root}, {"record_count", record_count}});
      return Fail(ApplyOutcomeKind::kRolledBack);
    }
    error_ = "RECOVERY_REQUIRED: update apply failed: " + cause +
             " Rollback was incomplete; do not start QORVA from this folder. " +
             "Rollback backup was preserved at '" + outcome_.backup_root +
             "'. Run the current QORVA installer to repair the installation. " +
             "Rollback failure(s): " + JoinText(failures, " | ");
    EmitChainEvent("rollback_recovery_required",
                   {{"backup_root", outcome_.backup_root},
                    {"failure_count", std::to_string(failures.size())},
                    {"error", error_}});
    return Fail(ApplyOutcomeKind::kRecoveryRequired);
  }

  bool Fail(ApplyOutcomeKind kind) {
    outcome_.kind = kind;
    outcome_.message = error_;
    return false;
  }

  // What the stages share.

  /// Hands each file that may be installed to `visit`, until that returns false.
  template <typename Visit>
  bool WalkStagedTree(const StagedTreeTexts& texts, StagedTreeWalk::Resolution resolution,
                      Visit&& visit) {
    StagedTreeWalk walk(staged_root_, target_root_, own_executable_, texts, resolution);
    StagedFile file;
    StagedTreeWalk::Step step;
    while ((step = walk.Next(&file, error_)) == StagedTreeWalk::Step::kFile) {
      if (!visit(std::as_const(file))) return false;
    }
    return step == StagedTreeWalk::Step::kEnd;
  }

  bool MakeFolder(const fs::Path& folder, std::string_view failure_prefix) {
    std::error_code ec;
    if (folders_.Ensure(folder, ec)) return true;
    error_ = FormatSystemFailure(failure_prefix, folder, ec);
    return false;
  }

  /// A file that is there and taken for a new one would be replaced without a backup, and removed
  /// by a rollback. So where its kind cannot be had, the file itself is asked.
  static bool Exists(const fs::Path& target) {
    std::error_code ec;
    const fs::EntryKind kind = fs::KindOf(target, fs::Links::kFollow, ec);
    if (kind == fs::EntryKind::kUnknown) return fs::OpenForRead(target, ec).is_open();
    return kind != fs::EntryKind::kNotFound;
  }

  void KeepWindowAlive() {
    if (window_ != nullptr) window_->PumpMessages();
  }

  const fs::Path& staged_root_;
  const fs::Path& target_root_;
  const std::uint32_t main_pid_;
  ApplyCloseContext* const close_context_;
  UpdateProgressWindow* const window_;
  const SignaturePolicy signature_policy_;
  const ApplyFaultInjection faults_;
  std::string& error_;
  ApplyOutcome& outcome_;
  const fs::Path own_executable_;
  const RetryPolicy retry_policy_{.keep_alive = KeepingAlive(window_)};
  fs::Path backup_root_;
  FolderMaker folders_;
  std::vector<fs::Path> retired_;
  std::vector<fs::Path> lock_list_;      // what must be free before anything changes
  std::vector<RollbackRecord> changes_;  // in the order in which they were made
};

}  // namespace

bool ApplyStagedUpdate(const fs::Path& staged_root, const fs::Path& target_root,
                       std::uint32_t main_pid, ApplyCloseContext* close_context,
                       bool require_signatures, std::string* error, ApplyOutcome* outcome,
                       const ApplyFaultInjection* faults) {
  std::string text;
  ApplyOutcome result;
  const SignaturePolicy signature_policy =
      require_signatures ? SignaturePolicy::kRequireTrusted : SignaturePolicy::kNone;
  const bool applied =
      Transaction(staged_root, target_root, main_pid, close_context, signature_policy,
                  faults != nullptr ? *faults : ApplyFaultInjection{}, text, result)
          .Run();
  if (error != nullptr) *error = std::move(text);
  if (outcome != nullptr) *outcome = std::move(result);
  return applied;
}

}  // namespace zul
