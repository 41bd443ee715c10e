// Real processes that end in every way, their real observer, and what both leave as evidence.

#include <windows.h>

#include <array>

#include "collector/emergency_record.h"
#include "collector/evidence_sanitizer.h"
#include "collector/orphan_sessions.h"
#include "collector/session_directory.h"
#include "core/handle_win32.h"
#include "core/process_environment.h"
#include "core/system_library_win32.h"
#include "core/text.h"
#include "tests/collector/records.h"
#include "tests/support/temp_folder.h"

namespace zul::test {
namespace {

using nlohmann::json;

/// Texts that no evidence may hold: one in the memory of each observed process, and the names of
/// the folders around it.
constexpr std::string_view kPrivate[] = {"Jana Novotná, licence 4711-0815-2342",
                                         "Kancelář Nováková", "QORVA RIP žluť", "qorva-test-"};

/// What happens to the observer.
enum class Fate {
  kServes,
  kLate,       ///< suspended until the process has ended
  kStuck,      ///< suspended for good; the crash path ends it
  kKilled,     ///< before the crash
  kEndless,    ///< the walk of the stack never returns; the watchdog ends it
  kMissing,    ///< there is no executable
  kNoProgram,  ///< the executable is no program
  kOtherBuild
};
constexpr DWORD kKilledCode = 9;
constexpr DWORD kWatchdogCode = 73;

struct Ending {
  std::string way;  ///< see die_on_demand_win32.cpp
  DWORD exit_code;
  /// incident.json: event, capture_status, capture_error, clean_shutdown_intent, exception_code
  const char* incident;
  Fate fate = Fate::kServes;
  /// The exit code of the observer, or the reason why there is none.
  std::string observer = "0";
  /// Where the observer did not finish: event and exception_code at the next start.
  std::string next_start = {};
};
constexpr const char* kCrash = "native_exception complete - false 3221225477";
constexpr const char* kNothing = "observer_started ready - - -";
const std::string kCrashLater = "native_exception 3221225477";
const Ending kEndings[] = {
    {"exit-other", 8, "process_exit_cause_unclassified exit_status_only - true -"},
    {"wait", kKilledCode, "process_exit_cause_unclassified exit_status_only - false -"},
    {"null-write", 0xC0000005, kCrash},
    {"deep-null-write", 0xC0000005, kCrash},
    // The overflow happens in a compiler routine that has no unwind information.
    {"stack-overflow", 0xC00000FD,
     "native_exception partial stack_unwind_incomplete false 3221225725"},
    {"heaps-locked", 0xC0000005, kCrash},
    {"uncaught", 3, "std_terminate complete - false 0"},
    {"terminate-heaps-locked", 3, "std_terminate complete - false 0"},
    // Two threads crash: the first is recorded, the second ends the process.
    {"crash-twice", 0xC000001D, "native_exception partial stack_unwind_incomplete false 3221225477",
     Fate::kLate},
    {"null-write", 0xC0000005, kNothing, Fate::kMissing, "collector_executable_missing",
     kCrashLater},
    {"null-write", 0xC0000005, kNothing, Fate::kNoProgram, "collector_launch_failed", kCrashLater},
    {"null-write", 0xC0000005, kNothing, Fate::kOtherBuild, "collector_ready_handshake_failed",
     kCrashLater},
    {"null-write", 0xC0000005, kNothing, Fate::kStuck, "71", kCrashLater},
    {"uncaught", 3, kNothing, Fate::kKilled, "9", "std_terminate 0"},
    {"unwind-loop", 3, "std_terminate collecting_stack - false 0", Fate::kEndless, "73",
     "std_terminate 0"},
};

/// A file of the build that this test program belongs to.
fs::Path Built(const std::string& relative) {
  const fs::Path build = CurrentExecutablePath().parent_path().parent_path().parent_path();
  return (build / relative).make_preferred();
}

/// A folder for evidence and an installation with the observer, in folders with private names.
struct Scene {
  Scene() { WriteFile(observer, ReadFile(Built("src/app/qorva_updater.exe"))); }
  const TempFolder folder;
  const fs::Path crash = folder / kPrivate[1];
  const fs::Path install = crash / *PathFromUtf8(kPrivate[2]);
  const fs::Path observer = install / "qorva_updater.exe";
};

/// One process of die_on_demand_win32.cpp, ended with this object.
class ObservedProcess {
 public:
  /// Returns after the start of its collector.
  ObservedProcess(const Scene& scene, const std::string& way, const char* program) {
    std::wstring command;
    for (const fs::Path& argument : {Built("tests/collector/programs/") += program, scene.crash,
                                     scene.install, fs::Path(way), *PathFromUtf8(kPrivate[0])}) {
      command += L'"' + argument.native() + L"\" ";
    }
    std::array<HANDLE, 4> ends{};
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    EXPECT_TRUE(::CreatePipe(&ends[0], &ends[1], &inherited, 0) &&
                ::CreatePipe(&ends[2], &ends[3], &inherited, 0));
    const UniqueKernelHandle its_input(ends[0]), output(ends[2]);
    UniqueKernelHandle its_output(ends[3]);
    input_.Reset(ends[1]);
    ::SetHandleInformation(input_.get(), HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = its_input.get();
    startup.hStdOutput = its_output.get();
    PROCESS_INFORMATION created{};
    EXPECT_TRUE(::CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW,
                                 nullptr, nullptr, &startup, &created));
    const UniqueKernelHandle thread(created.hThread);
    process_.Reset(created.hProcess);
    its_output.Reset();
    std::string line;
    DWORD read = 0;
    for (char c = 0; c != '\n' && ::ReadFile(output.get(), &c, 1, &read, nullptr) && read == 1;) {
      line += c;
    }
    start_ = json::parse(line, nullptr, false);
    EXPECT_TRUE(start_.is_object()) << "it did not start";
  }
  ~ObservedProcess() { ::TerminateProcess(process_.get(), 1); }

  /// What it printed about its start: reason, session, rva, thread.
  [[nodiscard]] const json& start() const { return start_; }
  [[nodiscard]] fs::Path session() const { return *PathFromUtf8(start_.value("session", "")); }
  [[nodiscard]] HANDLE handle() const { return process_.get(); }
  void Die() { input_.Reset(); }

 private:
  UniqueKernelHandle process_, input_;
  json start_;
};

/// Waits for the end of a process, at most half a minute; its exit code.
DWORD ExitCodeOf(HANDLE process) {
  EXPECT_EQ(::WaitForSingleObject(process, 30000), WAIT_OBJECT_0) << "it did not end";
  DWORD code = STILL_ACTIVE;
  ::GetExitCodeProcess(process, &code);
  return code;
}

/// Calls NtSuspendProcess or NtResumeProcess.
void ChangeThreads(const char* function, HANDLE process) {
  const SystemFunction<LONG NTAPI(HANDLE)> native(L"ntdll.dll", function);
  EXPECT_EQ(native(process), 0);
}

/// Fails the test when a file in `folder` holds a private text.
void ExpectNothingPrivate(const fs::Path& folder) {
  for (const auto& [name, bytes] : FilesBelow(folder)) {
    for (const auto text : kPrivate)
      EXPECT_EQ(bytes.find(text), bytes.npos) << name << " holds " << text;
  }
}

/// A stack holds modules, offsets and builds, and those of the test program are right.
void ExpectFrames(std::string_view way, const json& record, const json& start) {
  const json& frames = record.at("frames");
  EXPECT_EQ(SanitizeEvidenceRecord(record).at("frames"), frames);
  EXPECT_EQ(record.at("thread_id"), start.at("thread"));
  EXPECT_EQ(record.value("frames_limited", false), way == "deep-null-write");
  EXPECT_EQ(frames.size() == 48, way == "deep-null-write") << frames.size();
  bool in_program = false;
  for (const json& frame : frames) {
    EXPECT_TRUE(frame.at("module_resolved")) << frame;
    if (frame.value("module", "") != "die_on_demand.exe") continue;
    in_program = true;
    EXPECT_EQ(frame.value("pdb_guid", "").size(), 32u);
    EXPECT_GT(frame.at("image_timestamp"), 0u);
  }
  EXPECT_TRUE(in_program) << frames.dump(2);
  if (way != "null-write") return;
  EXPECT_LT(frames[0].at("rva").get<std::uint64_t>() - start.at("rva").get<std::uint64_t>(), 64u);
}

UniqueKernelHandle OpenObserver(const ObservedProcess& observed) {
  const json record = Record(observed.session() / "collector.json");
  return UniqueKernelHandle(::OpenProcess(PROCESS_ALL_ACCESS, FALSE, record.value("pid", 0u)));
}

/// Ends the process in its way and lets its observer meet its fate.
void Die(const Ending& ending, ObservedProcess& observed, HANDLE observer) {
  if (ending.fate == Fate::kKilled) ::TerminateProcess(observer, kKilledCode);
  const bool suspended = ending.fate == Fate::kLate || ending.fate == Fate::kStuck;
  if (suspended) ChangeThreads("NtSuspendProcess", observer);
  observed.Die();
  if (ending.way == "wait") ::TerminateProcess(observed.handle(), kKilledCode);
  EXPECT_EQ(ExitCodeOf(observed.handle()), ending.exit_code);
  if (ending.fate == Fate::kLate) ChangeThreads("NtResumeProcess", observer);
}

/// False when the watchdog ended a capture that should have succeeded. That happens on a busy
/// machine, since under Wine a capture also reads the host's libraries.
bool IsRecordedInTime(const Ending& ending) {
  const Scene scene;
  std::error_code ec;
  if (ending.fate == Fate::kMissing) fs::Remove(scene.observer, ec);
  if (ending.fate == Fate::kNoProgram) WriteFile(scene.observer, "no program");
  ObservedProcess observed(scene, ending.way,
                           ending.fate == Fate::kOtherBuild ? "die_on_demand_of_another_build.exe"
                                                            : "die_on_demand.exe");
  const fs::Path session = observed.session();
  std::string outcome = observed.start().at("reason");
  UniqueKernelHandle observer;
  if (outcome.empty()) observer = OpenObserver(observed);
  Die(ending, observed, observer.get());
  if (observer) {
    const DWORD exit_code = ExitCodeOf(observer.get());
    if (exit_code == kWatchdogCode && ending.fate != Fate::kEndless) return false;
    outcome = std::to_string(exit_code);
  }
  EXPECT_EQ(outcome, ending.observer);
  const json record = Record(session / "incident.json");
  EXPECT_EQ(Fields(record, {"event", "capture_status", "capture_error", "clean_shutdown_intent",
                            "exception_code"}),
            ending.incident);
  const std::vector<OrphanSession> orphans = FinalizeOrphanSessions(scene.crash);
  EXPECT_EQ(orphans.size(), 1u);
  const bool crashed = !ending.next_start.empty() || record.contains("exception_code");
  EXPECT_EQ(fs::SizeOf(session / "emergency.bin", ec), crashed ? sizeof(EmergencyRecord) : 0);
  if (ending.next_start.empty()) {
    EXPECT_EQ(ListTree(session), "collector.json\nemergency.bin\nincident.json\nmetadata.json\n");
    EXPECT_EQ(Fields(record, {"finalized", "exit_code_known", "exit_code", "exit_status_kind"}),
              "true true " + std::to_string(ending.exit_code) + " windows_process_exit_status");
    if (crashed && ending.fate == Fate::kServes) ExpectFrames(ending.way, record, observed.start());
  } else {
    EXPECT_FALSE(record.at("finalized"));
    EXPECT_EQ(Fields(orphans.at(0).record,
                     {"event", "exception_code", "capture_status", "capture_error"}),
              ending.next_start + " incomplete collector_did_not_finalize");
  }
  ExpectNothingPrivate(session);
  return true;
}

TEST(Endings, AreRecordedWithTheirCause) {
  for (const Ending& ending : kEndings) {
    SCOPED_TRACE(ending.way + ", row " + std::to_string(&ending - kEndings));
    bool in_time = false;
    for (int attempt = 0; attempt < 4 && !in_time; ++attempt) in_time = IsRecordedInTime(ending);
    EXPECT_TRUE(in_time);
  }
}

/// Opens every file of a folder for reading with the share mode.
std::vector<UniqueFileHandle> Hold(const fs::Path& folder, DWORD share) {
  std::vector<UniqueFileHandle> held;
  std::error_code ec;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(folder, ec)) {
    held.emplace_back(
        ::CreateFileW(entry.path.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr));
    // The observed process itself writes emergency.bin.
    EXPECT_TRUE(held.back() || entry.path.filename() == kEmergencyFile) << entry.path;
  }
  return held;
}

TEST(Endings, AreRecordedWhileAnotherProgramReadsTheRecords) {
  constexpr DWORD kEveryShareMode = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  for (DWORD share = 0; share <= kEveryShareMode; ++share) {
    SCOPED_TRACE(share);
    DWORD exit_code = kWatchdogCode;  // of a capture that was too slow, see IsRecordedInTime
    for (int attempt = 0; attempt < 4 && exit_code == kWatchdogCode; ++attempt) {
      const Scene scene;
      ObservedProcess observed(scene, "null-write", "die_on_demand.exe");
      const UniqueKernelHandle observer = OpenObserver(observed);
      std::vector<UniqueFileHandle> held = Hold(observed.session(), share);
      observed.Die();
      ::Sleep(100);
      held.clear();
      exit_code = ExitCodeOf(observer.get());
      if (exit_code != 0) continue;
      const json record = Record(observed.session() / "incident.json");
      EXPECT_EQ(Fields(record, {"event", "capture_status", "finalized", "exit_code"}),
                "native_exception complete true 3221225477");
    }
    EXPECT_EQ(exit_code, 0u);
  }
}

TEST(Endings, LeaveNoEvidenceWhenTheyWereDeclared) {
  const Scene scene;
  // More sessions than there may be. The start first removes the oldest.
  for (int i = 1000; i < 1041; ++i) {
    const fs::Path session = CompactDirectory(scene.crash) / ("process_" + std::to_string(i));
    WriteFile(session / "emergency.bin", "");
    for (const char* name : {"metadata.json", "collector.json"}) {
      EXPECT_EQ(Commit(session / name, BuildBaseRecord({0xFFFFFFF0, "1"}, 1)), "");
    }
  }
  ObservedProcess observed(scene, "exit-declared", "die_on_demand.exe");
  const UniqueKernelHandle observer = OpenObserver(observed);
  observed.Die();
  EXPECT_EQ(ExitCodeOf(observed.handle()), 7u);
  EXPECT_EQ(ExitCodeOf(observer.get()), 0u);
  EXPECT_FALSE(Exists(observed.session()));
  std::error_code ec;
  EXPECT_EQ(ListCompactSessions(scene.crash, ec).size(), 32u);
  fs::Remove(scene.observer, ec);
  ObservedProcess unobserved(scene, "exit-declared", "die_on_demand.exe");
  EXPECT_TRUE(Exists(unobserved.session())) << "for a crash";
  unobserved.Die();
  EXPECT_EQ(ExitCodeOf(unobserved.handle()), 7u);
  EXPECT_FALSE(Exists(unobserved.session()));
}

}  // namespace
}  // namespace zul::test
