// Outside Windows no system service reports who holds a file or asks a window to close, so a lock
// is waited for and then reported.

#include "apply/target_lock.h"

#include <thread>

#include "core/failure.h"

namespace zul {

bool QueryLockOwners(const fs::Path& /*target*/, std::uint32_t /*main_pid*/,
                     std::vector<LockOwner>* owners, std::string* error) {
  owners->clear();
  return Fail(error, "no Restart Manager on this system");
}

unsigned RequestClose(const std::vector<std::uint32_t>& /*pids*/) {
  return 0;
}

bool ForceCloseProcess(std::uint32_t /*pid*/, std::string* error) {
  return Fail(error, "processes are not ended on this system");
}

void WaitHandlingMessages(std::chrono::milliseconds duration) {
  std::this_thread::sleep_for(duration);
}

}  // namespace zul
