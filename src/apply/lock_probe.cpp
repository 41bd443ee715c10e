#include "apply/lock_probe.h"

#include <algorithm>

#include "core/system_error.h"
#include "core/text.h"
#include "request/application_owner.h"

namespace zul {

namespace {

// WinError.h and RestartManager.h of the platform's SDK.
constexpr std::uint32_t kFileNotFound = 2;
constexpr std::uint32_t kPathNotFound = 3;
constexpr std::uint32_t kAccessDenied = 5;
constexpr std::uint32_t kSharingViolation = 32;
constexpr std::uint32_t kLockViolation = 33;
constexpr std::uint32_t kPrivilegeNotHeld = 1314;
constexpr std::uint32_t kRmService = 3;

constexpr int kMaxTreeSteps = 128;

}  // namespace

bool ProbeTargetLock(const fs::Path& target, std::uint32_t main_pid, LockProbeResult& result,
                     std::string* error, const LockOwnerQuery& query) {
  result = {};
  std::error_code ec;
  // The open comes first: for a file that is free it is the only call.
  if (fs::OpensExclusively(target, ec) || !fs::Exists(target)) return true;

  result.ok = false;
  result.system_error = static_cast<std::uint32_t>(ec.value());
  result.message = SystemErrorText(ec);
  result.owner_query_ok = query(target, main_pid, result.owners, result.owner_query_error);
  if (!result.owner_query_ok) result.owners.clear();
  result.reason = ClassifyLock(result);
  if (error != nullptr) *error = "Lock probe failed for '" + PathToUtf8(target) + "'";
  return false;
}

bool ProbeTargetLock(const fs::Path& target, std::uint32_t main_pid, LockProbeResult& result,
                     std::string* error) {
  return ProbeTargetLock(
      target, main_pid, result, error,
      [](const fs::Path& path, std::uint32_t pid, std::vector<LockOwner>& owners,
         std::string& reason) { return QueryLockOwners(path, pid, owners, &reason); });
}

LockOwner MakeLockOwner(const LockHolderRecord& holder, std::uint32_t main_pid,
                        const ProcessParents& parents) {
  LockOwner owner;
  owner.pid = holder.pid;
  owner.name = holder.application_name;
  owner.is_service = holder.application_type == kRmService;
  owner.service = holder.service_short_name;
  owner.main_tree = IsInProcessTree(holder.pid, main_pid, parents);
  return owner;
}

bool IsInProcessTree(std::uint32_t pid, std::uint32_t main_pid, const ProcessParents& parents) {
  if (pid == 0 || main_pid == 0) return false;
  for (int steps = 0;; ++steps) {
    if (pid == main_pid) return true;
    const auto parent = parents.find(pid);
    if (parent == parents.end() || parent->second == pid || steps == kMaxTreeSteps) return false;
    pid = parent->second;
  }
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
    if (IsApplicationOwner({owner.pid, ProcessImagePath(owner.pid), owner.name}, target_root)) {
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

}  // namespace zul
