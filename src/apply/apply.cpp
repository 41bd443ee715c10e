#include "apply/apply.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "apply/apply_targets.h"
#include "core/failure.h"
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

/// The resolved path of this process's executable; empty when it is unavailable.
fs::Path ResolveOwnExecutable() {
  constexpr std::uint32_t kMaxPathUnits = 260;  // MAX_PATH of the platform's SDK
  const fs::Path path = CurrentExecutablePath(kMaxPathUnits);
  if (path.empty()) return {};
  std::error_code ec;
  fs::Path resolved = fs::WeaklyCanonical(path, ec);
  return ec ? fs::Path() : resolved;
}

enum class SignaturePolicy { kNone, kRequireTrusted };

/// One apply. A stage that fails returns false and leaves its text in `error_`.
class Transaction {
 public:
  Transaction(const fs::Path& staged_root, const fs::Path& target_root, std::uint32_t main_pid,
              ApplyCloseContext* close_context, SignaturePolicy signature_policy,
              const ApplyFaultInjection& faults)
      : staged_root_(staged_root),
        target_root_(target_root),
        main_pid_(main_pid),
        close_context_(close_context),
        keep_alive_(
            KeepingAlive(close_context != nullptr ? close_context->progress_window : nullptr)),
        signature_policy_(signature_policy),
        fail_after_replacements_(faults.fail_after_replacements),
        own_executable_(ResolveOwnExecutable()),
        backup_root_(staged_root.parent_path() / "rollback_backup"),
        changes_(backup_root_, faults, keep_alive_) {}

  ApplyOutcome Run() {
    if (!ValidateStagedTree() || !VerifySignatures() || !ListRetired() || !WaitForLocks() ||
        !PrepareBackups()) {
      return Failed(ApplyOutcomeKind::kFailedBeforeChange);
    }
    const ChangesInProgress changing(close_context_ != nullptr ? close_context_->progress_window
                                                               : nullptr);
    if (RemoveRetired() && InstallStagedFiles()) return Commit();
    return changes_.count() == 0 ? Failed(ApplyOutcomeKind::kFailedBeforeChange) : RollBack();
  }

 private:
  // The stages before the first change.

  bool ValidateStagedTree() {
    std::error_code ec;
    if (fs::KindOf(staged_root_, fs::Links::kFollow, ec) != fs::EntryKind::kDirectory) {
      return Fail(&error_,
                  "Staged update directory is missing: '" + PathToUtf8(staged_root_) + "'.");
    }
    return WalkStagedTree(kValidationTexts, StagedTreeWalk::Resolution::kEachFile,
                          [this](const StagedFile& file) {
                            AddToLockList(file.target);
                            return true;
                          });
  }

  bool VerifySignatures() {
    const bool required = signature_policy_ == SignaturePolicy::kRequireTrusted;
    std::vector<std::string> checked;
    const PayloadSignatureVerifier verifier = [this](const std::string& path) {
      UpdatePayloadBinarySignatureResult result;
      RunKeepingAlive([&] { result = VerifyBinarySignature(path); }, keep_alive_);
      return result;
    };
    if (!VerifyStagedPayloadSignatures(staged_root_, required, verifier, &checked, &error_,
                                       keep_alive_)) {
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

  /// Programs and libraries are what the application holds while it runs. A lock on another file
  /// is short, so the retries of its replacement are enough.
  void AddToLockList(const fs::Path& target) {
    const std::string extension = AsciiLower(PathToUtf8(target.extension()));
    if (extension == ".dll" || extension == ".exe") lock_list_.push_back(target);
  }

  bool WaitForLocks() {
    std::sort(lock_list_.begin(), lock_list_.end());
    lock_list_.erase(std::unique(lock_list_.begin(), lock_list_.end()), lock_list_.end());
    return std::all_of(lock_list_.begin(), lock_list_.end(), [this](const fs::Path& target) {
      KeepWindowAlive();
      return ResolveTargetLock(target, target_root_, main_pid_, close_context_, &error_);
    });
  }

  bool PrepareBackups() {
    reported_backup_root_ = PathToUtf8(backup_root_);
    return changes_.PrepareBackups(&error_);
  }

  // The stages that change the installation.

  bool RemoveRetired() {
    return std::all_of(retired_.begin(), retired_.end(), [this](const fs::Path& target) {
      KeepWindowAlive();
      if (!changes_.RemoveRetired(target, &error_)) return false;
      EmitChainEvent("retired_install_executable_removed",
                     {{"path", PathToUtf8(target.filename())}, {"rollback", "protected"}});
      return true;
    });
  }

  bool InstallStagedFiles() {
    return WalkStagedTree(kInstallTexts, StagedTreeWalk::Resolution::kEachFolder,
                          [this](const StagedFile& file) {
                            return changes_.Install(file, &error_) && !InjectFailure();
                          });
  }

  bool InjectFailure() {
    if (fail_after_replacements_ == 0 || changes_.count() < fail_after_replacements_) return false;
    error_ = "fault injection: apply failed after " + std::to_string(changes_.count()) +
             " successful replacement(s).";
    return true;
  }

  // The ways to end.

  ApplyOutcome Commit() {
    changes_.DiscardBackups();
    return {ApplyOutcomeKind::kApplied, {}, {}};
  }

  ApplyOutcome RollBack() {
    const std::string cause = error_;
    const std::string record_count = std::to_string(changes_.count());
    EmitChainEvent("rollback_start",
                   {{"backup_root", reported_backup_root_}, {"record_count", record_count}});
    const std::vector<std::string> failures = changes_.RollBack();
    if (failures.empty()) {
      error_ = cause + " Rollback completed and every restored target was verified.";
      EmitChainEvent("rollback_ok",
                     {{"backup_root", reported_backup_root_}, {"record_count", record_count}});
      return Failed(ApplyOutcomeKind::kRolledBack);
    }
    error_ = "RECOVERY_REQUIRED: update apply failed: " + cause +
             " Rollback was incomplete; do not start QORVA from this folder. " +
             "Rollback backup was preserved at '" + reported_backup_root_ +
             "'. Run the current QORVA installer to repair the installation. " +
             "Rollback failure(s): " + JoinText(failures, " | ");
    EmitChainEvent("rollback_recovery_required",
                   {{"backup_root", reported_backup_root_},
                    {"failure_count", std::to_string(failures.size())},
                    {"error", error_}});
    return Failed(ApplyOutcomeKind::kRecoveryRequired);
  }

  [[nodiscard]] ApplyOutcome Failed(ApplyOutcomeKind kind) const {
    return {kind, error_, reported_backup_root_};
  }

  // What the stages share.

  /// Calls `visit` for each file that may be installed until `visit` returns false.
  template <typename Visit>
  bool WalkStagedTree(const StagedTreeTexts& texts, StagedTreeWalk::Resolution resolution,
                      Visit&& visit) {
    StagedTreeWalk walk(staged_root_, target_root_, own_executable_, texts, resolution);
    StagedFile file;
    StagedTreeWalk::Step step;
    while ((step = walk.Next(&file, &error_)) == StagedTreeWalk::Step::kFile) {
      KeepWindowAlive();
      if (!visit(std::as_const(file))) return false;
    }
    return step == StagedTreeWalk::Step::kEnd;
  }

  void KeepWindowAlive() const {
    if (keep_alive_) keep_alive_();
  }

  const fs::Path& staged_root_;
  const fs::Path& target_root_;
  const std::uint32_t main_pid_;
  ApplyCloseContext* const close_context_;
  const KeepAlive keep_alive_;
  const SignaturePolicy signature_policy_;
  const std::uint32_t fail_after_replacements_;
  const fs::Path own_executable_;
  const fs::Path backup_root_;
  std::string reported_backup_root_;  // empty until the folder is needed
  std::vector<fs::Path> retired_;
  std::vector<fs::Path> lock_list_;  // targets that must be free before the first change
  InstallationChanges changes_;
  std::string error_;
};

}  // namespace

bool ApplyStagedUpdate(const fs::Path& staged_root, const fs::Path& target_root,
                       std::uint32_t main_pid, ApplyCloseContext* close_context,
                       bool require_signatures, std::string* error, ApplyOutcome* outcome,
                       const ApplyFaultInjection* faults) {
  const SignaturePolicy signature_policy =
      require_signatures ? SignaturePolicy::kRequireTrusted : SignaturePolicy::kNone;
  ApplyOutcome result =
      Transaction(staged_root, target_root, main_pid, close_context, signature_policy,
                  faults != nullptr ? *faults : ApplyFaultInjection{})
          .Run();
  const bool applied = result.kind == ApplyOutcomeKind::kApplied;
  if (error != nullptr) *error = result.message;
  if (outcome != nullptr) *outcome = std::move(result);
  return applied;
}

}  // namespace zul
