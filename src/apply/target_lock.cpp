#include "apply/target_lock.h"

#include "core/text.h"
#include "trace/chain_events.h"

namespace zul {

namespace {

using std::chrono::milliseconds;

constexpr unsigned kAttemptLimit = 12;
constexpr unsigned kCloseCycleLimit = 240;
constexpr unsigned kCloseRequestPeriod = 10;
constexpr milliseconds kCloseCycleWait{500};
constexpr milliseconds kLockRetryWait{250};

/// Access denied, sharing violation, lock violation: what may pass by waiting.
bool MayPass(std::uint32_t system_error) {
  return system_error == 5 || system_error == 32 || system_error == 33;
}

std::string JoinPids(const std::vector<std::uint32_t>& pids) {
  std::vector<std::string> texts;
  texts.reserve(pids.size());
  for (const std::uint32_t pid : pids) texts.push_back(std::to_string(pid));
  return JoinText(texts, ",");
}

class LockClearing {
 public:
  LockClearing(const fs::Path& target, ApplyCloseContext* context, std::string& error,
               const TargetLockActions& actions)
      : target_(target),
        window_(context != nullptr ? context->progress_window : nullptr),
        always_force_(context != nullptr && context->force_close),
        error_(error),
        actions_(actions) {}

  /// Cycles spent on a live application do not count as attempts.
  bool Run() {
    unsigned close_cycles = 0;
    for (unsigned attempt = 1; attempt <= kAttemptLimit;) {
      LockProbeResult probe;
      if (actions_.probe(target_, probe)) return Done(true);
      const std::vector<std::uint32_t> pids = actions_.application_pids(probe);
      if (!pids.empty() && close_cycles < kCloseCycleLimit) {
        CloseApplication(++close_cycles, pids, probe);
        continue;
      }
      OfferForceClose(false);
      if (!MayPass(probe.system_error) || attempt == kAttemptLimit) {
        error_ = FormatLockFailure(target_, probe, attempt);
        return Done(false);
      }
      actions_.wait(kLockRetryWait);
      ++attempt;
    }
    error_ = "pre-apply lock probe failed unexpectedly for '" + PathToUtf8(target_) + "'.";
    return Done(false);
  }

 private:
  void CloseApplication(unsigned cycle, const std::vector<std::uint32_t>& pids,
                        const LockProbeResult& probe) {
    if (window_ != nullptr) {
      window_->set_status("Waiting for QORVA to close...",
                          "QORVA is still running. The updater asked it to close safely; use Force "
                          "close only if it is stuck.",
                          100);
      told_ = true;
      OfferForceClose(true);
    }
    if (always_force_ || (window_ != nullptr && window_->force_close_requested())) {
      ForceClose(pids, probe);
    } else if (!close_requested_ || cycle % kCloseRequestPeriod == 0) {
      RequestClose(pids, probe);
    }
    actions_.wait(kCloseCycleWait);
  }

  void RequestClose(const std::vector<std::uint32_t>& pids, const LockProbeResult& probe) {
    close_requested_ = true;
    const unsigned taken = actions_.request_close(pids);
    EmitChainEvent("apply_request_close_locking_zul_process",
                   {{"target", PathToUtf8(target_)},
                    {"pids", JoinPids(pids)},
                    {"wm_close_messages", std::to_string(taken)},
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
    if (cleared && told_) {  // what the driver showed before the application was in the way
      window_->set_status("Installing update...", "Replacing application files safely.", 100);
    }
    return cleared;
  }

  /// The window is touched only when that changes something: most targets are free at once.
  void OfferForceClose(bool offered) {
    if (window_ == nullptr || offered == offered_) return;
    window_->set_force_close_available(offered);
    offered_ = offered;
  }

  const fs::Path& target_;
  UpdateProgressWindow* const window_;
  const bool always_force_;
  std::string& error_;
  const TargetLockActions& actions_;
  bool close_requested_ = false;
  bool offered_ = false;
  bool told_ = false;  // the window speaks of the application
};

}  // namespace

bool ResolveTargetLock(const fs::Path& target, ApplyCloseContext* close_context, std::string& error,
                       const TargetLockActions& actions) {
  return LockClearing(target, close_context, error, actions).Run();
}

}  // namespace zul
