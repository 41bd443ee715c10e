#include "apply/target_lock.h"

#include <algorithm>

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/system_error.h"
#include "core/text.h"
#include "request/application_owner.h"
#include "trace/chain_events.h"

namespace zul {

namespace {

using std::chrono::milliseconds;

// WinError.h and RestartManager.h of the platform's SDK.
constexpr std::uint32_t kFileNotFound = 2;
constexpr std::uint32_t kPathNotFound = 3;
constexpr std::uint32_t kAccessDenied = 5;
constexpr std::uint32_t kSharingViolation = 32;
constexpr std::uint32_t kLockViolation = 33;
constexpr std::uint32_t kPrivilegeNotHeld = 1314;
constexpr std::uint32_t kRmService = 3;

constexpr int kMaxTreeSteps = 128;

constexpr unsigned kAttemptLimit = 12;
constexpr unsigned kCloseCycleLimit = 240;
constexpr unsigned kCloseRequestPeriod = 10;
constexpr milliseconds kCloseCycleWait{500};
constexpr milliseconds kLockRetryWait{250};

/// The search ends at a process that is its own parent. A longer cycle, which reused ids can form,
/// ends at the limit.
bool IsInProcessTree(std::uint32_t pid, std::uint32_t main_pid, const ProcessList& processes) {
  if (pid == 0 || main_pid == 0) return false;
  for (int steps = 0;; ++steps) {
    if (pid == main_pid) return true;
    const auto listed = processes.find(pid);
    if (listed == processes.end() || steps == kMaxTreeSteps) return false;
    if (listed->second.parent == pid) return false;
    pid = listed->second.parent;
  }
}

/// True for errors that a wait can clear.
bool IsTransient(std::uint32_t system_error) {
  return system_error == kAccessDenied || system_error == kSharingViolation ||
         system_error == kLockViolation;
}

std::string JoinPids(const std::vector<std::uint32_t>& pids) {
  std::vector<std::string> texts;
  texts.reserve(pids.size());
  for (const std::uint32_t pid : pids) texts.push_back(std::to_string(pid));
  return JoinText(texts, ",");
}

/// Clears the lock on one target. The Force close button is shown while the application holds the
/// target and hidden at every end, which also forgets a press.
class LockClearing {
 public:
  LockClearing(const fs::Path& target, ApplyCloseContext* context, std::string* error,
               const TargetLockActions& actions)
      : target_(target),
        window_(context != nullptr ? context->progress_window : nullptr),
        always_force_(context != nullptr && context->force_close),
        error_(error),
        actions_(actions) {}

  /// Cycles that wait for the application do not count as attempts.
  bool Run() {
    unsigned close_cycles = 0;
    for (unsigned attempt = 1; attempt <= kAttemptLimit;) {
      LockProbeResult probe;
      if (actions_.probe(target_, &probe)) return Done(true);
      const std::vector<std::uint32_t> pids = actions_.application_pids(probe);
      if (!pids.empty() && close_cycles < kCloseCycleLimit) {
        CloseApplication(++close_cycles, pids, probe);
        continue;
      }
      OfferForceClose(false);
      if (!IsTransient(probe.system_error) || attempt == kAttemptLimit) {
        return Done(Fail(error_, FormatLockFailure(target_, probe, attempt)));
      }
      actions_.wait(kLockRetryWait);
      ++attempt;
    }
    return Done(
        Fail(error_, "pre-apply lock probe failed unexpectedly for '", PathToUtf8(target_) + "'."));
  }

 private:
  void CloseApplication(unsigned cycle, const std::vector<std::uint32_t>& pids,
                        const LockProbeResult& probe) {
    if (window_ != nullptr) {
      window_->set_status("Waiting for QORVA to close...",
                          "QORVA is still running. The updater asked it to close safely; use Force "
                          "close only if it is stuck.",
                          100);
      shows_waiting_ = true;
      OfferForceClose(true);
    }
    if (always_force_ || (window_ != nullptr && window_->force_close_requested())) {
      ForceClose(pids, probe);
    } else if (!close_requested_ || cycle % kCloseRequestPeriod == 0) {
      AskToClose(pids, probe);
    }
    actions_.wait(kCloseCycleWait);
  }

  void AskToClose(const std::vector<std::uint32_t>& pids, const LockProbeResult& probe) {
    close_requested_ = true;
    GiveWayTo(pids);
    const unsigned processed = actions_.request_close(pids);
    GiveWayTo(pids);  // to a box that the request has opened
    EmitChainEvent("apply_request_close_locking_zul_process",
                   {{"target", PathToUtf8(target_)},
                    {"pids", JoinPids(pids)},
                    {"wm_close_messages", std::to_string(processed)},
                    {"owners", FormatLockOwners(probe.owners)}});
  }

  void ForceClose(const std::vector<std::uint32_t>& pids, const LockProbeResult& probe) {
    unsigned ended = 0;
    std::string reason;
    for (const std::uint32_t pid : pids) {
      if (actions_.force_close(pid, &reason)) ++ended;
    }
    EmitChainEvent("apply_force_close_locking_zul_process",
                   {{"target", PathToUtf8(target_)},
                    {"pids", JoinPids(pids)},
                    {"terminated", std::to_string(ended)},
                    {"error", reason},
                    {"owners", FormatLockOwners(probe.owners)}});
  }

  bool Done(bool cleared) {
    OfferForceClose(false);
    // Back to the status that the window had before the application was in the way.
    if (cleared && shows_waiting_) {
      window_->set_status("Installing update...", "Replacing application files safely.", 100);
    }
    return cleared;
  }

  /// Touches the window only for a change: most targets are free at once.
  void OfferForceClose(bool offered) {
    if (window_ == nullptr || offered == offered_) return;
    window_->set_force_close_available(offered);
    if (!offered) window_->give_way_to({});
    offered_ = offered;
  }

  /// The application may ask its user whether to save.
  void GiveWayTo(const std::vector<std::uint32_t>& pids) {
    if (window_ != nullptr) window_->give_way_to(pids);
  }

  const fs::Path& target_;
  UpdateProgressWindow* const window_;
  const bool always_force_;
  std::string* const error_;
  const TargetLockActions& actions_;
  bool close_requested_ = false;
  bool offered_ = false;
  bool shows_waiting_ = false;  // the window says that it waits for the application
};

}  // namespace

bool ProbeTargetLock(const fs::Path& target, std::uint32_t main_pid, LockProbeResult* result,
                     std::string* error, const LockOwnerQuery& query) {
  *result = {};
  std::error_code ec;
  // The open comes first: for a file that is free it is the only call.
  if (fs::OpensExclusively(target, ec) || !fs::Exists(target)) return true;

  result->ok = false;
  result->system_error = static_cast<std::uint32_t>(ec.value());
  result->message = SystemErrorText(ec);
  result->owner_query_ok = query(target, main_pid, &result->owners, &result->owner_query_error);
  if (!result->owner_query_ok) result->owners.clear();
  result->reason = ClassifyLock(*result);
  return Fail(error, "Lock probe failed for '", PathToUtf8(target) + "'");
}

LockOwner MakeLockOwner(const LockHolderRecord& holder, std::uint32_t main_pid,
                        const ProcessList& processes) {
  LockOwner owner;
  owner.pid = holder.pid;
  owner.name = holder.application_name;
  owner.is_service = holder.application_type == kRmService;
  owner.service = holder.service_short_name;
  owner.main_tree = IsInProcessTree(holder.pid, main_pid, processes);
  const auto listed = processes.find(holder.pid);
  if (listed != processes.end()) owner.executable = listed->second.executable;
  return owner;
}

std::string_view ClassifyLock(const LockProbeResult& result) {
  if (result.ok) return "ok";
  const std::uint32_t code = result.system_error;
  if (code == kFileNotFound || code == kPathNotFound) return "missing_path";
  if (result.owners.empty()) {
    if (code == kAccessDenied || code == kPrivilegeNotHeld) return "permission_issue";
    if (code == kSharingViolation || code == kLockViolation) return "unknown_lock_owner";
    return "filesystem_error";
  }
  const bool main_tree = std::any_of(result.owners.begin(), result.owners.end(),
                                     [](const LockOwner& owner) { return owner.main_tree; });
  return main_tree ? "main_process_tree_still_alive" : "external_process_lock";
}

std::vector<std::uint32_t> ApplicationOwnerPids(const LockProbeResult& result,
                                                const fs::Path& target_root) {
  std::vector<std::uint32_t> pids;
  for (const LockOwner& owner : result.owners) {
    if (owner.pid == 0 || std::find(pids.begin(), pids.end(), owner.pid) != pids.end()) continue;
    const std::string& listed = owner.executable.empty() ? owner.name : owner.executable;
    if (IsApplicationOwner({owner.pid, ProcessImagePath(owner.pid), listed}, target_root)) {
      pids.push_back(owner.pid);
    }
  }
  return pids;
}

std::string FormatLockOwners(const std::vector<LockOwner>& owners) {
  std::vector<std::string> parts;
  for (const LockOwner& owner : owners) {
    std::string part = "pid=" + std::to_string(owner.pid);
    if (!owner.name.empty()) part += ",name='" + owner.name + "'";
    if (!owner.service.empty()) part += ",service='" + owner.service + "'";
    if (owner.main_tree) part += ",main_tree=true";
    parts.push_back(std::move(part));
  }
  return JoinText(parts, "; ");
}

std::string FormatLockFailure(const fs::Path& target, const LockProbeResult& result,
                              unsigned attempts) {
  std::string text = "pre-apply lock probe failed: target='" + PathToUtf8(target) + "'";
  text += ", reason=" + result.reason;
  text += ", code=" + std::to_string(result.system_error);
  if (!result.message.empty()) text += ", message='" + result.message + "'";
  if (attempts > 1) text += ", attempts=" + std::to_string(attempts);
  if (result.owner_query_ok) {
    text += ", owners=[" + FormatLockOwners(result.owners) + "]";
  } else if (!result.owner_query_error.empty()) {
    text += ", owner_query='" + result.owner_query_error + "'";
  }
  return text;
}

bool ResolveTargetLock(const fs::Path& target, ApplyCloseContext* close_context, std::string* error,
                       const TargetLockActions& actions) {
  return LockClearing(target, close_context, error, actions).Run();
}

bool ResolveTargetLock(const fs::Path& target, const fs::Path& target_root, std::uint32_t main_pid,
                       ApplyCloseContext* close_context, std::string* error) {
  const TargetLockActions actions = {
      .probe =
          [main_pid](const fs::Path& path, LockProbeResult* result) {
            return ProbeTargetLock(path, main_pid, result, nullptr);
          },
      .application_pids =
          [&target_root](const LockProbeResult& result) {
            return ApplicationOwnerPids(result, target_root);
          },
      .request_close = RequestClose,
      .force_close = ForceCloseProcess,
      .wait = WaitHandlingMessages,
  };
  return ResolveTargetLock(target, close_context, error, actions);
}

}  // namespace zul
