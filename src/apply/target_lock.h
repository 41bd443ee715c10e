#pragma once

// Clearing the lock on one target before anything is changed: the application is asked to close,
// the user is offered Force close, a foreign lock is waited for a little, and what does not clear
// ends with a full report. Only the application of this installation is ever closed: never the
// updater itself, another folder's copy or a foreign program.

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "apply/apply.h"
#include "apply/lock_probe.h"

namespace zul {

/// What clearing a lock does to the world. The product's own are the defaults of ResolveTargetLock.
struct TargetLockActions {
  /// As ProbeTargetLock; returns `result.ok`.
  std::function<bool(const fs::Path& target, LockProbeResult& result)> probe;
  /// As ApplicationOwnerPids.
  std::function<std::vector<std::uint32_t>(const LockProbeResult& result)> application_pids;
  /// Asks each process's windows to close; the number of windows that took the request.
  std::function<unsigned(const std::vector<std::uint32_t>& pids)> request_close;
  /// As ForceCloseProcess.
  std::function<bool(std::uint32_t pid, std::string* error)> force_close;
  /// Waits with the window alive.
  std::function<void(std::chrono::milliseconds duration)> wait;
};

/// True when `target` can now be opened exclusively. Blocks, for up to 2 minutes while the
/// application lives and 3 s for other locks. On false `error` has the report. `close_context` may
/// be null.
[[nodiscard]] bool ResolveTargetLock(const fs::Path& target, ApplyCloseContext* close_context,
                                     std::string& error, const TargetLockActions& actions);

/// The same with the system's own actions.
[[nodiscard]] bool ResolveTargetLock(const fs::Path& target, const fs::Path& target_root,
                                     std::uint32_t main_pid, ApplyCloseContext* close_context,
                                     std::string& error);

/// Ends a process and waits up to 5 s for its end. One that has gone already counts as ended; pid 0
/// and the updater's own are refused. `error` may be null.
[[nodiscard]] bool ForceCloseProcess(std::uint32_t pid, std::string* error);

}  // namespace zul
