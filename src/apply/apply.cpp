#include "apply/apply.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>
#include <vector>

#include "apply/apply_targets.h"
#include "apply/room.h"
#include "core/failure.h"
#include "core/process_environment.h"
#include "core/text.h"
#include "package/layout.h"
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

constexpr std::string_view kBackupFolder = "rollback_backup";

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
        backup_root_(staged_root.parent_path() / kBackupFolder),
        changes_(backup_root_, faults, keep_alive_) {}

  ApplyOutcome Run() {
    if (!Survives([this] { return Prepare(); })) {
      return Failed(ApplyOutcomeKind::kFailedBeforeChange);
    }
    const ChangesInProgress changing(close_context_ != nullptr ? close_context_->progress_window
                                                               : nullptr);
    if (Survives([this] { return RemoveRetired() && InstallStagedFiles(); })) return Commit();
    changes_.DropPrepared();
    if (changes_.count() != 0) return RollBack();
    changes_.RemoveLeftovers();
    return Failed(ApplyOutcomeKind::kFailedBeforeChange);
  }

 private:
  /// Calls a stage, or several. An exception is a failure: it must not end the process between two
  /// changes.
  template <typename Stage>
  bool Survives(Stage&& stage) {
    try {
      return stage();
    } catch (const std::bad_alloc&) {
      return Fail(&error_, "The updater ran out of memory.");
    } catch (const std::exception& exception) {
      return Fail(&error_, "An unexpected error stopped the updater: ", exception.what());
    }
  }

  // The stages before the first change.

  bool Prepare() {
    own_executable_ = ResolveOwnExecutable();
    return CheckName() && ValidateStagedTree() && VerifySignatures() && ListRetired() &&
           WaitForLocks() && PrepareBackups() && HaveRoom();
  }

  /// The backup folder is beside the staged root. A package whose one top-level folder has its name
  /// would be removed as an old backup.
  bool CheckName() {
    if (AsciiLower(PathToUtf8(staged_root_.filename())) != kBackupFolder) return true;
    return Fail(&error_,
                "Update package has a top-level folder named '" +
                    PathToUtf8(staged_root_.filename()) +
                    "', which is the name of the backup folder. No file has been changed.");
  }

  bool ValidateStagedTree() {
    std::error_code ec;
    if (fs::KindOf(staged_root_, fs::Links::kFollow, ec) != fs::EntryKind::kDirectory) {
      return Fail(&error_,
                  "Staged update directory is missing: '" + PathToUtf8(staged_root_) + "'.");
    }
    StagedTreeWalk walk(staged_root_, target_root_, own_executable_, kValidationTexts);
    StagedFile file;
    StagedTreeWalk::Step step;
    while ((step = walk.Next(&file, &error_)) == StagedTreeWalk::Step::kFile) {
      KeepWindowAlive();
      AddToLockList(file.target);
      std::error_code ignored;  // a missing file takes no room
      const bool is_there = file.target_kind != fs::EntryKind::kNotFound;
      sizes_.push_back({is_there ? fs::SizeOf(file.target, ignored) : 0, file.size_bytes});
    }
    return step == StagedTreeWalk::Step::kEnd;
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

  bool HaveRoom() {
    RoomCount room(VolumeOf(backup_root_), VolumeOf(target_root_),
                   InstallationChanges::kFilesAhead);
    std::error_code ignored;
    for (const fs::Path& target : retired_) room.AddRemoval(fs::SizeOf(target, ignored));
    for (const Sizes& file : sizes_) room.AddReplacement(file.old_bytes, file.new_bytes);
    if (room.SufficesAhead()) changes_.WorkAhead();
    return room.Suffices(&error_);
  }

  /// A default volume, which counts as large enough, when its facts are unavailable.
  static fs::Volume VolumeOf(const fs::Path& folder) {
    fs::Volume volume;
    std::error_code ec;
    return fs::VolumeOf(folder, &volume, ec) ? volume : fs::Volume();
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
    StagedTreeWalk walk(staged_root_, target_root_, own_executable_, kInstallTexts);
    StagedFile file;
    StagedTreeWalk::Step step;
    std::string walk_error;  // belongs after the files that the walk found before
    while ((step = walk.Next(&file, &walk_error)) == StagedTreeWalk::Step::kFile) {
      KeepWindowAlive();
      if (!(file.target_folder != nullptr ? InstallWithOthers(file) : InstallAlone(file))) {
        return false;
      }
    }
    return InstallPrepared() && (step == StagedTreeWalk::Step::kEnd || Fail(&error_, walk_error));
  }

  /// While the folder of the target is held, the check of the target stays true.
  bool InstallWithOthers(const StagedFile& file) {
    if (changes_.IsFull() && !InstallNext()) return false;
    changes_.Prepare(file);
    return true;
  }

  /// A folder that is not held may have become a link since its check.
  bool InstallAlone(const StagedFile& file) {
    if (!InstallPrepared() || !ValidatePayloadTarget(target_root_, file.target, &error_)) {
      return false;
    }
    changes_.Prepare(file);
    return InstallNext();
  }

  bool InstallPrepared() {
    while (changes_.HasPrepared()) {
      if (!InstallNext()) return false;
    }
    return true;
  }

  bool InstallNext() { return changes_.InstallNext(&error_) && !InjectFailure(); }

  bool InjectFailure() {
    if (fail_after_replacements_ == 0 || changes_.count() < fail_after_replacements_) return false;
    error_ = "fault injection: apply failed after " + std::to_string(changes_.count()) +
             " successful replacement(s).";
    return true;
  }

  // The ways to end.

  ApplyOutcome Commit() {
    // The update is installed, so nothing that happens now is a failure.
    static_cast<void>(Survives([this] {
      changes_.DiscardBackups();
      changes_.RemoveLeftovers();
      return true;
    }));
    return {ApplyOutcomeKind::kApplied, {}, {}};
  }

  ApplyOutcome RollBack() {
    const std::string cause = error_;
    const std::string record_count = std::to_string(changes_.count());
    EmitChainEvent("rollback_start",
                   {{"backup_root", reported_backup_root_}, {"record_count", record_count}});
    std::vector<std::string> failures;
    const auto undo = [&] {
      failures = changes_.RollBack();
      return true;
    };
    if (!Survives(undo)) failures.push_back(error_);
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
  fs::Path own_executable_;  // resolved; empty when it is unavailable
  const fs::Path backup_root_;
  std::string reported_backup_root_;  // empty until the folder is needed
  std::vector<fs::Path> retired_;
  std::vector<fs::Path> lock_list_;  // targets that must be free before the first change
  struct Sizes {
    std::uint64_t old_bytes;
    std::uint64_t new_bytes;
  };
  std::vector<Sizes> sizes_;  // of the files to install, in their order
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
