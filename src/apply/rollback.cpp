#include "apply/rollback.h"

#include <iterator>
#include <string_view>
#include <utility>

#include "apply/retry_file_ops.h"
#include "core/file_hash.h"
#include "core/system_error.h"
#include "core/text.h"

namespace zul {

namespace {

class Rollback {
 public:
  Rollback(const ApplyFaultInjection& faults, fs::KeepAlive keep_alive)
      : faults_(faults), retry_policy_{.keep_alive = std::move(keep_alive)} {}

  void Undo(const RollbackRecord& record) {
    if (!record.had_backup) {
      RemoveAdded(record.target);
    } else if (Restore(record)) {
      VerifyRestored(record);
    }
  }

  [[nodiscard]] std::vector<std::string> TakeFailures() { return std::move(failures_); }

 private:
  void RemoveAdded(const fs::Path& target) {
    std::error_code ec;
    if (std::exchange(faults_.fail_first_remove, false)) {
      AddInjected("rollback remove failed", {}, target);
    } else if (fs::Remove(target, ec); ec) {
      failures_.push_back(FormatFileFailure("rollback remove failed", {}, target, ec, 1));
    }

    const fs::EntryKind kind = fs::KindOf(target, fs::Links::kDoNotFollow, ec);
    if (kind == fs::EntryKind::kNotFound) return;
    const std::string subject =
        "rollback verification failed: newly installed target '" + PathToUtf8(target) + "' ";
    failures_.push_back(kind == fs::EntryKind::kUnknown ? subject + "could not be inspected " +
                                                              "(" + DescribeSystemError(ec) + ")."
                                                        : subject + "still exists after removal.");
  }

  /// True when the backup's content was put back, so that there is something to verify.
  bool Restore(const RollbackRecord& record) {
    if (std::exchange(faults_.fail_first_restore, false)) {
      AddInjected("rollback restore failed", record.backup, record.target);
      return false;
    }
    std::string error;
    if (!RetryReplaceFile(record.backup, record.target, "rollback restore failed", &error,
                          retry_policy_)) {
      failures_.push_back(std::move(error));
      return false;
    }
    if (std::exchange(faults_.corrupt_first_restore, false)) Corrupt(record.target);
    return true;
  }

  void VerifyRestored(const RollbackRecord& record) {
    std::string backup_digest;
    std::string target_digest;
    if (!Digest("backup", record.backup, &backup_digest) ||
        !Digest("target", record.target, &target_digest)) {
      return;
    }
    if (backup_digest != target_digest) {
      failures_.push_back("rollback verification hash mismatch: backup='" +
                          PathToUtf8(record.backup) + "', target='" + PathToUtf8(record.target) +
                          "'.");
    }
  }

  bool Digest(std::string_view role, const fs::Path& path, std::string* digest) {
    std::string error;
    if (ComputeFileSha256(path, digest, &error, retry_policy_.keep_alive)) return true;
    failures_.push_back("rollback verification failed for " + std::string(role) + " '" +
                        PathToUtf8(path) + "': " + error);
    return false;
  }

  void AddInjected(std::string_view context, const fs::Path& source, const fs::Path& target) {
    failures_.push_back(FormatFileFailure(context, source, target,
                                          std::make_error_code(std::errc::permission_denied), 1) +
                        " (fault injected)");
  }

  static void Corrupt(const fs::Path& target) {
    constexpr std::string_view kText = "fault-injected rollback corruption";
    std::error_code ec;
    fs::File file = fs::CreateTruncatedFile(target, ec);
    // A fault that cannot be injected shows in the verification: it then finds nothing.
    if (file.is_open()) static_cast<void>(fs::WriteAll(file, kText.data(), kText.size(), ec));
  }

  ApplyFaultInjection faults_;  // each of the rollback's faults is switched off by its first use
  const RetryPolicy retry_policy_;
  std::vector<std::string> failures_;
};

}  // namespace

std::vector<std::string> RollBackChanges(const std::vector<RollbackRecord>& records,
                                         const ApplyFaultInjection& faults,
                                         UpdateProgressWindow* window) {
  const KeepAlive keep_alive = KeepingAlive(window);
  Rollback rollback(faults, keep_alive);
  for (auto record = records.rbegin(); record != records.rend(); ++record) {
    if (keep_alive) keep_alive();
    rollback.Undo(*record);
  }
  return rollback.TakeFailures();
}

}  // namespace zul
