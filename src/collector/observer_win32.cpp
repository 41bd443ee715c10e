#include "collector/observer.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

#include "collector/collector_block_win32.h"
#include "collector/evidence_record.h"
#include "collector/incident.h"
#include "collector/session_directory.h"
#include "collector/stack_capture_win32.h"
#include "core/process_environment.h"

namespace zul {

namespace {

using nlohmann::json;

enum ObserverExit : int {
  kExitRecorded = 0,
  kExitBadArguments = 64,
  kExitMismatch = 65,
  kExitOtherBuild = 66,
  kExitWaitFailed = 67,
  kExitCommitFailed = 68,
  kExitWatchdog = 73,
};

constexpr DWORD kWaitMs = 1000;
constexpr std::uint64_t kCaptureLimitMs = 3000;
constexpr DWORD kWatchdogRoundMs = 100;

// The GetTickCount64 value at which the current capture must have ended; 0 without a capture. The
// only variable that the watchdog and the main loop share.
constinit std::atomic<std::uint64_t> g_capture_deadline{0};

/// Ends the process when a capture takes too long, since a walk of a damaged stack may never
/// return.
void WatchCaptures() {
  for (;;) {
    ::Sleep(kWatchdogRoundMs);
    const std::uint64_t deadline = g_capture_deadline.load();
    if (deadline != 0 && ::GetTickCount64() >= deadline) ::ExitProcess(kExitWatchdog);
  }
}

/// 0 when `from_tick` is later, which happens: the two ticks may come from two processes.
std::uint64_t Elapsed(std::uint64_t from_tick, std::uint64_t to_tick) {
  return to_tick - std::min(from_tick, to_tick);
}

/// The observation of one process, from the checks on the inherited handles to the process's end.
class Observation {
 public:
  explicit Observation(const std::array<std::uintptr_t, 4>& handles)
      : mapping_(Inherited(handles[0])),
        crash_event_(Inherited(handles[1])),
        ready_event_(Inherited(handles[2])),
        process_(Inherited(handles[3])),
        block_(MapBlock(mapping_.get())) {}

  int Run();

 private:
  static HANDLE Inherited(std::uintptr_t value) {
    return reinterpret_cast<HANDLE>(value);  // NOLINT(performance-no-int-to-ptr)
  }

  int Begin();
  [[nodiscard]] bool Attach();
  [[nodiscard]] bool CommitOwnRecord() const;
  [[nodiscard]] bool Commit(std::string_view name) const {
    return CommitEvidenceRecord(session_ / name, record_, nullptr);
  }
  [[nodiscard]] json FreshRecord() const { return BuildBaseRecord(observed_, UnixTimeMs()); }
  [[nodiscard]] IncidentMoment MomentAt(std::uint64_t tick);

  [[nodiscard]] bool Answer(ObserverRequest request, bool* captured);
  [[nodiscard]] bool Capture(RequestAnswer what);
  [[nodiscard]] bool CaptureCrash();
  [[nodiscard]] bool CaptureHang(std::uint64_t tick);
  int Finish();
  void Release();

  UniqueKernelHandle mapping_;
  UniqueKernelHandle crash_event_;
  UniqueKernelHandle ready_event_;
  UniqueKernelHandle process_;
  UniqueSharedBlock block_;
  fs::Path session_;
  ProcessKey observed_;
  json record_;
  bool crash_captured_ = false;
  bool hang_captured_ = false;
};

/// True when the block belongs to the process and names a session folder.
bool Observation::Attach() {
  if (!block_) return false;
  const DWORD pid = ::GetProcessId(process_.get());
  const std::optional<std::uint64_t> creation_time = CreationTimeOf(process_.get());
  if (pid == 0 || !creation_time || !IsBlockOf(*block_.get(), pid, *creation_time)) return false;
  session_ = SessionDirectoryIn(*block_.get());
  observed_ = {pid, std::to_string(*creation_time)};
  return IsCompactSessionPath(session_);
}

bool Observation::CommitOwnRecord() const {
  const std::uint64_t creation_time = CreationTimeOf(::GetCurrentProcess()).value_or(0);
  return CommitEvidenceRecord(session_ / kCollectorFile,
                              {{"schema", kEvidenceSchema},
                               {"pid", ::GetCurrentProcessId()},
                               {"process_identity", std::to_string(creation_time)}},
                              nullptr);
}

/// Everything up to the ready event, for which the observed process waits. kExitRecorded on
/// success.
int Observation::Begin() {
  json metadata;
  if (!Attach() || !ReadEvidenceRecord(session_ / kMetadataFile, &metadata, nullptr)) {
    return kExitMismatch;
  }
  if (!IsOfThisBuild(metadata)) return kExitOtherBuild;
  if (!CommitOwnRecord()) return kExitCommitFailed;
  record_ = FreshRecord();
  std::thread(WatchCaptures).detach();
  ::SetEvent(ready_event_.get());
  return kExitRecorded;
}

int Observation::Run() {
  if (const int failure = Begin(); failure != kExitRecorded) return failure;
  const HANDLE awaited[] = {crash_event_.get(), process_.get()};
  for (;;) {
    const DWORD woken = ::WaitForMultipleObjects(2, awaited, FALSE, kWaitMs);
    if (woken == WAIT_FAILED) return kExitWaitFailed;
    if (woken == WAIT_OBJECT_0) {
      bool captured = false;
      if (!Answer(TakeRequest(*block_.get()), &captured)) return kExitCommitFailed;
      if (!captured) continue;
    }
    if (::WaitForSingleObject(process_.get(), 0) == WAIT_OBJECT_0) return Finish();
  }
}

/// False when a record could not be committed. `captured` is true when there was a capture.
bool Observation::Answer(ObserverRequest request, bool* captured) {
  const RequestAnswer answer = AnswerTo(request, crash_captured_, hang_captured_);
  *captured = answer == RequestAnswer::kCaptureCrash || answer == RequestAnswer::kCaptureHang;
  if (*captured && !Capture(answer)) return false;
  if (answer != RequestAnswer::kNone) ::SetEvent(ready_event_.get());
  return true;
}

IncidentMoment Observation::MomentAt(std::uint64_t tick) {
  return {.observed_at_unix_ms = UnixTimeMs(),
          .process_uptime_ms = Elapsed(block_.get()->start_tick, tick),
          .declared_exit_code = DeclaredExit(*block_.get())};
}

bool Observation::Capture(RequestAnswer what) {
  const std::uint64_t began = ::GetTickCount64();
  g_capture_deadline.store(began + kCaptureLimitMs);
  BeginCapture(MomentAt(began), &record_);
  CaptureProcessCounters(process_.get(), &record_);
  const bool hang = what == RequestAnswer::kCaptureHang;
  if (!(hang ? CaptureHang(began) : CaptureCrash())) return false;
  record_["capture_duration_ms"] = Elapsed(began, ::GetTickCount64());
  if (hang) {
    if (!Commit(kHangFile)) return false;
    record_ = FreshRecord();
  }
  if (!Commit(kIncidentFile)) return false;
  g_capture_deadline.store(0);
  return true;
}

/// Commits the fact of the crash before the process is examined, since the walk may never return.
bool Observation::CaptureCrash() {
  EmergencyRecord emergency = block_.get()->emergency;
  NoteCrash(emergency, &record_);
  if (!Commit(kIncidentFile)) return false;
  record_["capture_status"] = "complete";
  CaptureStack(process_.get(), emergency.thread_id, *ContextIn(emergency), &record_);
  crash_captured_ = true;
  return true;
}

bool Observation::CaptureHang(std::uint64_t tick) {
  const DWORD thread_id = block_.get()->ui_thread_id;
  NoteHang(thread_id, Elapsed(block_.get()->last_heartbeat_tick, tick), &record_);
  if (!Commit(kIncidentFile)) return false;
  record_["capture_status"] = "complete";
  CONTEXT context{};
  if (CaptureThreadContextSnapshot(process_.get(), thread_id, &context, &record_)) {
    CaptureStack(process_.get(), thread_id, context, &record_);
  } else {
    record_["capture_status"] = "partial";
  }
  hang_captured_ = true;
  return true;
}

int Observation::Finish() {
  ProcessEnding ending{.moment = MomentAt(::GetTickCount64()),
                       .exit_code = std::nullopt,
                       .crash_captured = crash_captured_};
  DWORD exit_code = 0;
  if (::GetExitCodeProcess(process_.get(), &exit_code)) ending.exit_code = exit_code;
  FinishIncident(ending, session_, &record_);
  if (!Commit(kIncidentFile)) return kExitCommitFailed;
  Release();
  // A clean end leaves no evidence. After any other end the next start reports the session.
  if (record_.value("event", "") == "clean_exit") DeleteCompactSession(session_);
  return kExitRecorded;
}

void Observation::Release() {
  block_.Reset();
  process_.Reset();
  ready_event_.Reset();
  crash_event_.Reset();
  mapping_.Reset();
}

int ObserverMain(const ObserverArguments& arguments) {
  const auto handles = ParseObserverHandles(arguments);
  return handles ? Observation(*handles).Run() : kExitBadArguments;
}

}  // namespace

int RunObserver(int argc, wchar_t* const* argv) {
  // This process has no window, so no message box of the system may wait for a user.
  ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  const auto arguments = NarrowObserverArguments(argc, argv);
  return arguments ? ObserverMain(*arguments) : kExitBadArguments;
}

}  // namespace zul
