#pragma once

// What must end before the first file is changed: the application's main process, and every lock on
// a file that the apply replaces. A lock is another process's open handle on the file.
//
// A probe says whether a file can be replaced now, and which processes hold it when it cannot. To
// clear a lock, the application of this installation is asked to close, and it is ended when the
// user presses Force close. No other process is closed: not the updater, not a copy of the
// application in another folder, not a foreign program. Their locks are waited for and then
// reported.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "core/path.h"
#include "ui/progress_window.h"

namespace zul {

/// Waits until the process `pid` ends. False with the reason in `error` (may be null) when
/// `timeout_ms` has passed. A process that cannot be opened counts as ended, and so does pid 0.
/// With `pump_messages` the windows of this thread are kept alive. Windows only.
[[nodiscard]] bool WaitForMainProcess(std::uint32_t pid, std::uint32_t timeout_ms,
                                      std::string* error, bool pump_messages);

// ---------------------------------------------------------------------------------------------
// Who holds a file

/// One process that holds a file. Texts are UTF-8.
struct LockOwner {
  std::uint32_t pid = 0;
  std::string name;  ///< the application name that the Restart Manager gives
  bool is_service = false;
  std::string service;     ///< the short name of the service
  bool main_tree = false;  ///< the application's main process or a descendant of it
  /// File name of the image in the process list; empty when the process is not in the list.
  std::string executable = {};
};

/// The result of a probe. A default one says that the file can be replaced now.
struct LockProbeResult {
  bool ok = true;
  std::string reason = "ok";  ///< the class, see ClassifyLock
  std::uint32_t system_error = 0;
  std::string message;  ///< the system's text for the error
  std::vector<LockOwner> owners;
  bool owner_query_ok = false;
  std::string owner_query_error;
};

/// Asks the Restart Manager which processes hold `target`. On failure `owners` is empty and `error`
/// (may be null) has the reason. There is no Restart Manager on other systems than Windows, so the
/// query fails there.
[[nodiscard]] bool QueryLockOwners(const fs::Path& target, std::uint32_t main_pid,
                                   std::vector<LockOwner>* owners, std::string* error);

/// As QueryLockOwners. What a failed query leaves in `owners` is ignored.
using LockOwnerQuery = std::function<bool(const fs::Path& target, std::uint32_t main_pid,
                                          std::vector<LockOwner>* owners, std::string* error)>;

/// Tries to open `target` exclusively, and calls `query` only when that fails. A free file costs
/// one open. A file that does not exist is not locked. Returns `result->ok`; on false `error` (may
/// be null) has a text.
[[nodiscard]] bool ProbeTargetLock(const fs::Path& target, std::uint32_t main_pid,
                                   LockProbeResult* result, std::string* error,
                                   const LockOwnerQuery& query = QueryLockOwners);

/// What the Restart Manager reports about one holder. Texts are UTF-8.
struct LockHolderRecord {
  std::uint32_t pid = 0;
  std::string application_name;
  std::uint32_t application_type = 0;  ///< an RM_APP_TYPE value
  std::string service_short_name;
};

/// What the process list says about one process.
struct ListedProcess {
  std::uint32_t parent = 0;
  std::string executable;  ///< file name, UTF-8
};

/// The process list by process id.
using ProcessList = std::map<std::uint32_t, ListedProcess>;

/// One owner from its record and the process list. A process belongs to the main tree when at most
/// 128 steps to the parent lead from it to `main_pid`. Process id 0 belongs to no tree.
[[nodiscard]] LockOwner MakeLockOwner(const LockHolderRecord& holder, std::uint32_t main_pid,
                                      const ProcessList& processes);

/// The class of a probe: "ok", "missing_path", "permission_issue", "unknown_lock_owner",
/// "filesystem_error", "main_process_tree_still_alive" or "external_process_lock".
[[nodiscard]] std::string_view ClassifyLock(const LockProbeResult& result);

/// The ids of the owners that are this installation's application, which are those that may be
/// closed. In the order of the owners, without duplicates. An owner whose image path cannot be read
/// is judged by its name in the process list, or by `name` when it is not in the list.
[[nodiscard]] std::vector<std::uint32_t> ApplicationOwnerPids(const LockProbeResult& result,
                                                              const fs::Path& target_root);

/// "pid=12,name='QORVA',service='svc',main_tree=true; pid=..." Empty and false parts are left out.
[[nodiscard]] std::string FormatLockOwners(const std::vector<LockOwner>& owners);

/// The report of a lock that did not clear. `attempts` up to 1 is left out.
[[nodiscard]] std::string FormatLockFailure(const fs::Path& target, const LockProbeResult& result,
                                            unsigned attempts);

// ---------------------------------------------------------------------------------------------
// Clearing a lock

/// What closing the application needs. Borrowed for the length of the call.
struct ApplyCloseContext {
  UpdateProgressWindow* progress_window = nullptr;  ///< may be null
  bool force_close = false;  ///< end the application without waiting for the Force close button
};

/// What ResolveTargetLock does to other processes and to the clock.
struct TargetLockActions {
  /// As ProbeTargetLock.
  std::function<bool(const fs::Path& target, LockProbeResult* result)> probe;
  /// As ApplicationOwnerPids.
  std::function<std::vector<std::uint32_t>(const LockProbeResult& result)> application_pids;
  /// As RequestClose.
  std::function<unsigned(const std::vector<std::uint32_t>& pids)> request_close;
  /// As ForceCloseProcess.
  std::function<bool(std::uint32_t pid, std::string* error)> force_close;
  /// As WaitHandlingMessages.
  std::function<void(std::chrono::milliseconds duration)> wait;
};

/// Blocks until `target` can be opened exclusively: up to 2 minutes while the application runs, and
/// 3 s for other locks. On false `error` (may be null) has the report. `close_context` may be null.
[[nodiscard]] bool ResolveTargetLock(const fs::Path& target, ApplyCloseContext* close_context,
                                     std::string* error, const TargetLockActions& actions);

/// The same with the system's own actions. `target_root` is the installation's folder, `main_pid`
/// the id of the application's main process or 0.
[[nodiscard]] bool ResolveTargetLock(const fs::Path& target, const fs::Path& target_root,
                                     std::uint32_t main_pid, ApplyCloseContext* close_context,
                                     std::string* error);

/// Sends WM_CLOSE to every top-level window of the processes, but not to the updater's own. Waits
/// up to 1 s for each window, with the windows of this thread kept alive. Returns how many windows
/// processed the message. Does nothing on other systems than Windows.
[[nodiscard]] unsigned RequestClose(const std::vector<std::uint32_t>& pids);

/// Ends a process and waits up to 5 s for its end. A process that no longer exists counts as ended;
/// pid 0 and the updater's own are refused. On false `error` (may be null) has the reason. Fails on
/// other systems than Windows.
[[nodiscard]] bool ForceCloseProcess(std::uint32_t pid, std::string* error);

/// Waits, with the windows of this thread kept alive.
void WaitHandlingMessages(std::chrono::milliseconds duration);

}  // namespace zul
