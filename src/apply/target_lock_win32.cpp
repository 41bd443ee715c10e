#include "apply/target_lock.h"

#include <windows.h>

#include "core/failure.h"
#include "core/handle_win32.h"
#include "core/keep_alive.h"
#include "core/process_environment.h"
#include "ui/message_pump.h"

namespace zul {

namespace {

constexpr UINT kCloseSendTimeoutMs = 1000;
constexpr DWORD kForcedExitWaitMs = 5000;
// The letters "ZULU": whoever reads the exit code of an application that was ended knows by whom.
constexpr UINT kForcedExitCode = 0x5A554C55;

struct CloseRequest {
  DWORD pid;
  unsigned taken;
};

BOOL CALLBACK SendClose(HWND window, LPARAM parameter) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the platform hands it back as it took it
  auto* const request = reinterpret_cast<CloseRequest*>(parameter);
  DWORD pid = 0;
  ::GetWindowThreadProcessId(window, &pid);
  if (pid != request->pid) return TRUE;
  DWORD_PTR answer = 0;
  if (::SendMessageTimeoutW(window, WM_CLOSE, 0, 0, SMTO_BLOCK | SMTO_ABORTIFHUNG,
                            kCloseSendTimeoutMs, &answer) != 0) {
    ++request->taken;
  }
  return TRUE;
}

unsigned SendCloseTo(const std::vector<std::uint32_t>& pids) {
  unsigned taken = 0;
  for (const std::uint32_t pid : pids) {
    if (pid == 0 || pid == CurrentProcessId()) continue;
    CloseRequest request{pid, 0};
    ::EnumWindows(&SendClose, reinterpret_cast<LPARAM>(&request));
    taken += request.taken;
  }
  return taken;
}

/// An application that is slow to answer holds the sender for up to a second a window.
unsigned RequestClose(const std::vector<std::uint32_t>& pids) {
  unsigned taken = 0;
  RunKeepingAlive([&] { taken = SendCloseTo(pids); }, PumpPendingMessages);
  return taken;
}

std::string Describe(const char* what, std::uint32_t pid, DWORD code) {
  return std::string(what) + ", pid=" + std::to_string(pid) + ", code=" + std::to_string(code);
}

}  // namespace

bool ForceCloseProcess(std::uint32_t pid, std::string* error) {
  if (pid == 0 || pid == CurrentProcessId()) {
    return Fail(error, "Refusing to terminate invalid updater process id.");
  }
  const UniqueKernelHandle process(::OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid));
  if (!process) {
    const DWORD code = ::GetLastError();
    if (code == ERROR_INVALID_PARAMETER) return true;  // there is no such process any more
    return Fail(error, Describe("Cannot open QORVA process for forced close", pid, code));
  }
  if (!::TerminateProcess(process.get(), kForcedExitCode)) {
    return Fail(error, Describe("Cannot force close QORVA process", pid, ::GetLastError()));
  }
  PumpUntilSignalled(process.get(), kForcedExitWaitMs);
  return true;
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
  actions.request_close = RequestClose;
  actions.force_close = ForceCloseProcess;
  actions.wait = [](std::chrono::milliseconds duration) {
    PumpFor(static_cast<std::uint32_t>(duration.count()));
  };
  return ResolveTargetLock(target, close_context, error, actions);
}

}  // namespace zul
