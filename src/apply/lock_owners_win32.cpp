#include <windows.h>

#include <restartmanager.h>
#include <tlhelp32.h>

#include "apply/lock_probe.h"
#include "core/handle_win32.h"
#include "core/keep_alive.h"
#include "core/system_library_win32.h"
#include "core/text.h"
#include "ui/message_pump.h"

namespace zul {

namespace {

constexpr wchar_t kLibrary[] = L"rstrtmgr.dll";

/// One session with the Restart Manager, ended on every path. Its functions are looked up anew for
/// each query, which is made for a locked file only.
class RestartManagerSession {
 public:
  RestartManagerSession() = default;
  ~RestartManagerSession() {
    if (open_) end_(session_);
  }
  RestartManagerSession(const RestartManagerSession&) = delete;
  RestartManagerSession& operator=(const RestartManagerSession&) = delete;

  /// Fills `holders`, or says in `error` which call failed.
  bool ListHolders(const fs::Path& target, std::vector<RM_PROCESS_INFO>& holders,
                   std::string& error) {
    for (const DWORD missing : {start_.error(), register_.error(), list_.error(), end_.error()}) {
      if (missing != ERROR_SUCCESS) return Failed("RmStartSession failed", missing, error);
    }
    wchar_t key[CCH_RM_SESSION_KEY + 1] = {};
    if (const DWORD code = start_(&session_, 0, key)) {
      return Failed("RmStartSession failed", code, error);
    }
    open_ = true;
    // It compares names: a slash of the other kind would match nothing.
    const fs::Path path = fs::Path(target).make_preferred();
    LPCWSTR files[] = {path.c_str()};
    if (const DWORD code = register_(session_, 1, files, 0, nullptr, 0, nullptr)) {
      return Failed("RmRegisterResources failed", code, error);
    }
    return Read(holders, error);
  }

 private:
  bool Read(std::vector<RM_PROCESS_INFO>& holders, std::string& error) {
    UINT needed = 0;
    UINT count = 0;
    DWORD reasons = 0;
    const DWORD first = list_(session_, &needed, &count, nullptr, &reasons);
    if (first == ERROR_SUCCESS) return true;
    if (first != ERROR_MORE_DATA) return Failed("RmGetList failed", first, error);
    holders.resize(needed);
    count = needed;
    if (const DWORD code = list_(session_, &needed, &count, holders.data(), &reasons)) {
      holders.clear();
      return Failed("RmGetList(read) failed", code, error);
    }
    if (count < holders.size()) holders.resize(count);
    return true;
  }

  static bool Failed(const char* what, DWORD code, std::string& error) {
    error = std::string(what) + ", code=" + std::to_string(code);
    return false;
  }

  const SystemFunction<decltype(::RmStartSession)> start_{kLibrary, "RmStartSession"};
  const SystemFunction<decltype(::RmRegisterResources)> register_{kLibrary, "RmRegisterResources"};
  const SystemFunction<decltype(::RmGetList)> list_{kLibrary, "RmGetList"};
  const SystemFunction<decltype(::RmEndSession)> end_{kLibrary, "RmEndSession"};
  DWORD session_ = 0;
  bool open_ = false;
};

/// Who started whom, of every process that runs; empty when the system does not tell.
ProcessParents SnapshotParents() {
  ProcessParents parents;
  const UniqueFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  if (!snapshot) return parents;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more;
       more = ::Process32NextW(snapshot.get(), &entry)) {
    parents[entry.th32ProcessID] = entry.th32ParentProcessID;
  }
  return parents;
}

}  // namespace

bool QueryLockOwners(const fs::Path& target, std::uint32_t main_pid, std::vector<LockOwner>& owners,
                     std::string* error) {
  owners.clear();
  std::vector<RM_PROCESS_INFO> holders;
  std::string reason;
  bool listed = false;
  // It looks at every process of the system, and takes its time where there are many.
  RunKeepingAlive([&] { listed = RestartManagerSession().ListHolders(target, holders, reason); },
                  PumpPendingMessages);
  if (!listed) {
    if (error != nullptr) *error = std::move(reason);
    return false;
  }
  if (holders.empty()) return true;
  const ProcessParents parents = SnapshotParents();
  for (const RM_PROCESS_INFO& holder : holders) {
    owners.push_back(MakeLockOwner({holder.Process.dwProcessId, WideToUtf8Lossy(holder.strAppName),
                                    static_cast<std::uint32_t>(holder.ApplicationType),
                                    WideToUtf8Lossy(holder.strServiceShortName)},
                                   main_pid, parents));
  }
  return true;
}

}  // namespace zul
