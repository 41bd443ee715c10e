#pragma once

// Whether a file can be replaced now, and if not, who holds it and what that means. The answer
// decides whether the application is asked to close, the lock is waited for, or the update gives up
// with a report that names the holders. Nothing is kept between probes.

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "core/file_layer.h"

namespace zul {

/// One process that holds a file. Texts UTF-8.
struct LockOwner {
  std::uint32_t pid = 0;
  std::string name;  ///< as the Restart Manager calls the application
  bool is_service = false;
  std::string service;     ///< the service's short name
  bool main_tree = false;  ///< the application's main process or a descendant of it
};

/// What the Restart Manager says of one holder, as plain data.
struct LockHolderRecord {
  std::uint32_t pid = 0;
  std::string application_name;
  std::uint32_t application_type = 0;  ///< an RM_APP_TYPE value
  std::string service_short_name;
};

/// Process ids and the ids of the processes that started them.
using ProcessParents = std::map<std::uint32_t, std::uint32_t>;

struct LockProbeResult {
  bool ok = true;             ///< the file can be replaced now
  std::string reason = "ok";  ///< the class, see ClassifyLock
  std::uint32_t system_error = 0;
  std::string message;  ///< the system's text for the error
  std::vector<LockOwner> owners;
  bool owner_query_ok = false;
  std::string owner_query_error;
};

/// Finds the holders of a file: `owners` on true, a text in `error` on false.
using LockOwnerQuery = std::function<bool(const fs::Path& target, std::uint32_t main_pid,
                                          std::vector<LockOwner>& owners, std::string& error)>;

/// Tries to open `target` with nobody else on it; only when that fails `query` is asked. Costs one
/// open for a file that is free. A file that is not there is not locked. Returns `result.ok`;
/// `error` (may be null) gets a text on false.
[[nodiscard]] bool ProbeTargetLock(const fs::Path& target, std::uint32_t main_pid,
                                   LockProbeResult& result, std::string* error,
                                   const LockOwnerQuery& query);

/// The same with QueryLockOwners.
[[nodiscard]] bool ProbeTargetLock(const fs::Path& target, std::uint32_t main_pid,
                                   LockProbeResult& result, std::string* error);

/// Asks the Restart Manager who holds `target`. Fails where there is none.
[[nodiscard]] bool QueryLockOwners(const fs::Path& target, std::uint32_t main_pid,
                                   std::vector<LockOwner>& owners, std::string* error);

/// One owner from what the Restart Manager and the process list say of it.
[[nodiscard]] LockOwner MakeLockOwner(const LockHolderRecord& holder, std::uint32_t main_pid,
                                      const ProcessParents& parents);

/// True when `pid` is `main_pid` or descends from it by at most 128 steps. Circles end it; 0 is no
/// process.
[[nodiscard]] bool IsInProcessTree(std::uint32_t pid, std::uint32_t main_pid,
                                   const ProcessParents& parents);

/// The class of a probe: "ok", "missing_path", "permission_issue", "unknown_lock_owner",
/// "filesystem_error", "main_process_tree_still_alive" or "external_process_lock".
[[nodiscard]] std::string_view ClassifyLock(const LockProbeResult& result);

/// The owners that are this installation's application, in their order and without duplicates:
/// those that may be asked to close.
[[nodiscard]] std::vector<std::uint32_t> ApplicationOwnerPids(const LockProbeResult& result,
                                                              const fs::Path& target_root);

/// "pid=12,name='QORVA',main_tree=true; pid=..."
[[nodiscard]] std::string FormatLockOwners(const std::vector<LockOwner>& owners);

/// The report of a lock that did not clear. `attempts` up to 1 is left out.
[[nodiscard]] std::string FormatLockFailure(const fs::Path& target, const LockProbeResult& result,
                                            unsigned attempts);

}  // namespace zul
