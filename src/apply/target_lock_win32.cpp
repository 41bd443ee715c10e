#include "apply/target_lock.h"

#include <windows.h>

#include <restartmanager.h>
#include <tlhelp32.h>

#include "core/failure.h"
#include "core/handle_win32.h"
#include "core/keep_alive.h"
#include "core/process_environment.h"
#include "core/system_library_win32.h"
#include "core/text.h"
#include "ui/message_pump.h"

namespace zul {

namespace {

constexpr wchar_t kLibrary[] = L"rstrtmgr.dll";
constexpr UINT kCloseSendTimeoutMs = 1000;
constexpr DWORD kForcedExitWaitMs = 5000;
/// The letters "ZULU". The exit code shows support that the updater ended the application.
constexpr UINT kForcedExitCode = 0x5A554C55;

/// One session with the Restart Manager, which ends with the object. Its functions are looked up
/// for each query, because only a locked file needs one.
class RestartManagerSession {
 public:
  RestartManagerSession() = default;
  ~RestartManagerSession() {
    if (open_) end_(session_);
  }
  RestartManagerSession(const RestartManagerSession&) = delete;
  RestartManagerSession& operator=(const RestartManagerSession&) = delete;

  /// Fills `holders`. On false `error` names the call that failed.
  bool ListHolders(const fs::Path& target, std::vector<RM_PROCESS_INFO>* holders,
                   std::string* error) {
    for (const DWORD missing : {start_.error(), register_.error(), list_.error(), end_.error()}) {
      if (missing != ERROR_SUCCESS) return Failed("RmStartSession failed", missing, error);
    }
    wchar_t key[CCH_RM_SESSION_KEY + 1] = {};
    if (const DWORD code = start_(&session_, 0, key)) {
      return Failed("RmStartSession failed", code, error);
    }
    open_ = true;
    // The Restart Manager compares names, and a name with "/" matches no file.
    const fs::Path path = fs::Path(target).make_preferred();
    LPCWSTR files[] = {path.c_str()};
    if (const DWORD code = register_(session_, 1, files, 0, nullptr, 0, nullptr)) {
      return Failed("RmRegisterResources failed", code, error);
    }
    return Read(holders, error);
  }

 private:
  bool Read(std::vector<RM_PROCESS_INFO>* holders, std::string* error) {
    UINT needed = 0;
    UINT count = 0;
    DWORD reasons = 0;
    const DWORD first = list_(session_, &needed, &count, nullptr, &reasons);
    if (first == ERROR_SUCCESS) return true;
    if (first != ERROR_MORE_DATA) return Failed("RmGetList failed", first, error);
    holders->resize(needed);
    count = needed;
    if (const DWORD code = list_(session_, &needed, &count, holders->data(), &reasons)) {
      holders->clear();
      return Failed("RmGetList(read) failed", code, error);
    }
    if (count < holders->size()) holders->resize(count);
    return true;
  }

  static bool Failed(std::string_view what, DWORD code, std::string* error) {
    return Fail(error, what, ", code=" + std::to_string(code));
  }

  const SystemFunction<decltype(::RmStartSession)> start_{kLibrary, "RmStartSession"};
  const SystemFunction<decltype(::RmRegisterResources)> register_{kLibrary, "RmRegisterResources"};
  const SystemFunction<decltype(::RmGetList)> list_{kLibrary, "RmGetList"};
  const SystemFunction<decltype(::RmEndSession)> end_{kLibrary, "RmEndSession"};
  DWORD session_ = 0;
  bool open_ = false;
};

/// Every running process; empty when the system has no snapshot.
ProcessList ListProcesses() {
  ProcessList processes;
  const UniqueFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  if (!snapshot) return processes;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more;
       more = ::Process32NextW(snapshot.get(), &entry)) {
    processes[entry.th32ProcessID] = {entry.th32ParentProcessID, WideToUtf8Lossy(entry.szExeFile)};
  }
  return processes;
}

struct CloseRequest {
  DWORD pid;
  unsigned processed;
};

BOOL CALLBACK SendClose(HWND window, LPARAM parameter) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): EnumWindows passes the pointer as an integer
  auto* const request = reinterpret_cast<CloseRequest*>(parameter);
  DWORD pid = 0;
  ::GetWindowThreadProcessId(window, &pid);
  if (pid != request->pid) return TRUE;
  DWORD_PTR answer = 0;
  if (::SendMessageTimeoutW(window, WM_CLOSE, 0, 0, SMTO_BLOCK | SMTO_ABORTIFHUNG,
                            kCloseSendTimeoutMs, &answer) != 0) {
    ++request->processed;
  }
  return TRUE;
}

unsigned SendCloseTo(const std::vector<std::uint32_t>& pids) {
  unsigned processed = 0;
  for (const std::uint32_t pid : pids) {
    if (pid == 0 || pid == CurrentProcessId()) continue;
    CloseRequest request{pid, 0};
    ::EnumWindows(&SendClose, reinterpret_cast<LPARAM>(&request));
    processed += request.processed;
  }
  return processed;
}

bool FailForProcess(std::string* error, std::string_view what, std::uint32_t pid, DWORD code) {
  return Fail(error, what, ", pid=" + std::to_string(pid) + ", code=" + std::to_string(code));
}

}  // namespace

bool WaitForMainProcess(std::uint32_t pid, std::uint32_t timeout_ms, std::string* error,
                        bool pump_messages) {
  if (pid == 0) return true;
  const UniqueKernelHandle process(::OpenProcess(SYNCHRONIZE, FALSE, pid));
  if (!process) return true;
  const bool ended = pump_messages
                         ? PumpUntilSignalled(process.get(), timeout_ms)
                         : ::WaitForSingleObject(process.get(), timeout_ms) == WAIT_OBJECT_0;
  return ended || Fail(error, "Timed out waiting for main process to exit.");
}

bool QueryLockOwners(const fs::Path& target, std::uint32_t main_pid, std::vector<LockOwner>* owners,
                     std::string* error) {
  owners->clear();
  std::vector<RM_PROCESS_INFO> holders;
  std::string reason;
  bool listed = false;
  // The query inspects every process, which takes long on a system with many.
  RunKeepingAlive([&] { listed = RestartManagerSession().ListHolders(target, &holders, &reason); },
                  PumpPendingMessages);
  if (!listed) return Fail(error, reason);
  if (holders.empty()) return true;
  const ProcessList processes = ListProcesses();
  for (const RM_PROCESS_INFO& holder : holders) {
    owners->push_back(MakeLockOwner({holder.Process.dwProcessId, WideToUtf8Lossy(holder.strAppName),
                                     static_cast<std::uint32_t>(holder.ApplicationType),
                                     WideToUtf8Lossy(holder.strServiceShortName)},
                                    main_pid, processes));
  }
  return true;
}

unsigned RequestClose(const std::vector<std::uint32_t>& pids) {
  unsigned processed = 0;
  RunKeepingAlive([&] { processed = SendCloseTo(pids); }, PumpPendingMessages);
  return processed;
}

bool ForceCloseProcess(std::uint32_t pid, std::string* error) {
  if (pid == 0 || pid == CurrentProcessId()) {
    return Fail(error, "Refusing to terminate invalid updater process id.");
  }
  const UniqueKernelHandle process(::OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid));
  if (!process) {
    const DWORD code = ::GetLastError();
    if (code == ERROR_INVALID_PARAMETER) return true;  // the process no longer exists
    return FailForProcess(error, "Cannot open QORVA process for forced close", pid, code);
  }
  if (!::TerminateProcess(process.get(), kForcedExitCode)) {
    return FailForProcess(error, "Cannot force close QORVA process", pid, ::GetLastError());
  }
  PumpUntilSignalled(process.get(), kForcedExitWaitMs);
  return true;
}

void WaitHandlingMessages(std::chrono::milliseconds duration) {
  PumpFor(static_cast<std::uint32_t>(duration.count()));
}

}  // namespace zul
