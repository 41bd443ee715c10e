// Away from Windows no system tells who holds a file or asks windows to close: a lock is waited for
// and then reported.

#include "apply/target_lock.h"

#include <thread>

namespace zul {

bool QueryLockOwners(const fs::Path& /*target*/, std::uint32_t /*main_pid*/,
                     std::vector<LockOwner>& owners, std::string* error) {
  owners.clear();
  if (error != nullptr) *error = "no Restart Manager on this system";
  return false;
}

bool ForceCloseProcess(std::uint32_t /*pid*/, std::string* error) {
  if (error != nullptr) *error = "processes are not ended on this system";
  return false;
}

bool ResolveTargetLock(const fs::Path& target, const fs::Path& target_root, std::uint32_t main_pid,
                       ApplyCloseContext* close_context, std::string& error) {
  TargetLockActions actions;
  actions.probe = [main_pid](const fs::Path& path, LockProbeResult& result) {
    return ProbeTargetLock(path, main_pid, result, nullptr);
  };
  actions.application_pids = [&target_root](const LockProbeResult& result) {
    return ApplicationOwnerPids(result, target_root);
  };
  actions.request_close = [](const std::vector<std::uint32_t>&) { return 0u; };
  actions.force_close = ForceCloseProcess;
  actions.wait = [](std::chrono::milliseconds duration) { std::this_thread::sleep_for(duration); };
  return ResolveTargetLock(target, close_context, error, actions);
}

}  // namespace zul
