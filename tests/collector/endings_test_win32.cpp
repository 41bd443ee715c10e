// How processes end, and what the real observer, or whoever comes after it, tells of that.

#include "collector/emergency_record.h"
#include "collector/evidence_sanitizer.h"
#include "collector/orphan_sessions.h"
#include "collector/session_directory.h"
#include "tests/collector/observed_process_win32.h"

namespace zul::test {
namespace {

using nlohmann::json;

constexpr DWORD kTerminatedCode = 9;
constexpr DWORD kWatchdogCode = 73;

/// What happens to the observer: why the start says that there is none, or the exit code of the one
/// that there is.
struct Watch {
  const char* reason = "";
  DWORD exit_code = 0;
};
constexpr Watch kWatches;
constexpr Watch kLate;  // suspended until the process is gone
constexpr Watch kEndless{"", kWatchdogCode};
constexpr Watch kKilled{"", kTerminatedCode};
constexpr Watch kKilledInCapture{"", kTerminatedCode};
constexpr Watch kStuck{"", 71};  // suspended, and ended by the process that waits for it
constexpr Watch kMissing{"collector_executable_missing"};
constexpr Watch kNoProgram{"collector_launch_failed"};
constexpr Watch kOtherBuild{"collector_ready_handshake_failed"};

struct Ending {
  std::string_view way;
  DWORD exit_code;
  /// incident.json: event, capture_status, capture_error, clean_shutdown_intent, exception_code
  const char* told;
  const Watch* watch = &kWatches;
  /// Where the observer did not finish: event and exception_code at the next start.
  std::string next_start = {};
};
constexpr const char* kUnclassified = "process_exit_cause_unclassified exit_status_only - false -";
constexpr const char* kCrash = "native_exception complete - false 3221225477";
constexpr const char* kNothing = "observer_started ready - - -";
constexpr const char* kCollecting = "std_terminate collecting_stack - false 0";
const Ending kEndings[] = {
    {"exit-other", 8, "process_exit_cause_unclassified exit_status_only - true -"},
    {"abort", 3, kUnclassified},
    {"wait", kTerminatedCode, kUnclassified},
    {"null-write", 0xC0000005, kCrash},
    {"deep-null-write", 0xC0000005, kCrash},
    // It is met in a routine of the compiler that has no unwind information.
    {"stack-overflow", 0xC00000FD,
     "native_exception partial stack_unwind_incomplete false 3221225725"},
    {"heaps-locked", 0xC0000005, kCrash},
    {"uncaught", 3, "std_terminate complete - false 0"},
    // Two threads at once: the first is told, the second ends the process.
    {"crash-twice", 0xC000001D, "native_exception partial stack_unwind_incomplete false 3221225477",
     &kLate},
    {"null-write", 0xC0000005, kNothing, &kMissing, "native_exception 3221225477"},
    {"null-write", 0xC0000005, kNothing, &kNoProgram, "native_exception 3221225477"},
    {"null-write", 0xC0000005, kNothing, &kOtherBuild, "native_exception 3221225477"},
    {"null-write", 0xC0000005, kNothing, &kStuck, "native_exception 3221225477"},
    {"uncaught", 3, kNothing, &kKilled, "std_terminate 0"},
    {"unwind-loop", 3, kCollecting, &kKilledInCapture, "std_terminate 0"},
    {"unwind-loop", 3, kCollecting, &kEndless, "std_terminate 0"},
};

/// A stack holds modules, offsets and builds; of what the test program knows it is right.
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

/// Lets it die in its way, and its observer meet with what the row says.
void Die(const Ending& ending, ObservedProcess& observed, HANDLE observer) {
  const fs::Path incident = observed.session() / "incident.json";
  std::error_code ec;
  const std::uint64_t before = fs::SizeOf(incident, ec);
  if (ending.watch == &kKilled) ::TerminateProcess(observer, kTerminatedCode);
  if (ending.watch == &kLate || ending.watch == &kStuck) Let("NtSuspendProcess", observer);
  observed.Die();
  if (ending.way == "wait") ::TerminateProcess(observed.handle(), kTerminatedCode);
  if (ending.watch == &kKilledInCapture) {
    // Once the crash is on the disk, and the walk of the stack is under way. Nobody opens the
    // record meanwhile: it could not be replaced then.
    for (int i = 0; i < 300 && fs::SizeOf(incident, ec) == before; ++i) ::Sleep(10);
    ::Sleep(200);
    ::TerminateProcess(observer, kTerminatedCode);
  }
  EXPECT_EQ(ExitCodeOf(observed.handle()), ending.exit_code);
  if (ending.watch == &kLate) Let("NtResumeProcess", observer);
}

/// False when the observer had to give up on the stack, as it may where a capture under Wine, which
/// reads the host's libraries too, meets a busy machine.
bool IsToldInTime(const Ending& ending) {
  const Scene scene;
  std::error_code ec;
  if (ending.watch == &kMissing) fs::Remove(scene.observer, ec);
  if (ending.watch == &kNoProgram) WriteFile(scene.observer, "no program");
  const char* const other = ending.watch == &kOtherBuild ? "_of_another_build" : "";
  ObservedProcess observed(scene, std::string(ending.way), std::string("die_on_demand") + other);
  EXPECT_EQ(Told(observed.start(), {"reason"}), ending.watch->reason);
  UniqueKernelHandle observer;
  if (*ending.watch->reason == '\0') observer = OpenObserver(observed);
  Die(ending, observed, observer.get());
  if (observer) {
    const DWORD exit_code = ExitCodeOf(observer.get());
    if (exit_code == kWatchdogCode && ending.watch != &kEndless) return false;
    EXPECT_EQ(exit_code, ending.watch->exit_code);
  }
  const fs::Path session = observed.session();
  const json record = Record(session / "incident.json");
  EXPECT_EQ(Told(record, {"event", "capture_status", "capture_error", "clean_shutdown_intent",
                          "exception_code"}),
            ending.told);
  const std::vector<OrphanSession> orphans = FinalizeOrphanSessions(scene.crash);
  EXPECT_EQ(orphans.size(), 1u);
  const bool crashed = !ending.next_start.empty() || record.contains("exception_code");
  EXPECT_EQ(fs::SizeOf(session / "emergency.bin", ec), crashed ? sizeof(EmergencyRecord) : 0);
  if (ending.next_start.empty()) {
    EXPECT_EQ(ListTree(session), "collector.json\nemergency.bin\nincident.json\nmetadata.json\n");
    EXPECT_EQ(Told(record, {"finalized", "exit_code_known", "exit_code", "exit_status_kind"}),
              "true true " + std::to_string(ending.exit_code) + " windows_process_exit_status");
    if (crashed && ending.watch == &kWatches) ExpectFrames(ending.way, record, observed.start());
  } else {
    EXPECT_FALSE(record.at("finalized"));
    EXPECT_EQ(
        Told(orphans.at(0).record, {"event", "exception_code", "capture_status", "capture_error"}),
        ending.next_start + " incomplete collector_did_not_finalize");
  }
  ExpectNothingPrivate(session);
  return true;
}

TEST(Endings, AreToldAsTheyWere) {
  for (const Ending& ending : kEndings) {
    SCOPED_TRACE(std::string(ending.way) + ", row " + std::to_string(&ending - kEndings));
    bool in_time = false;
    for (int attempt = 0; attempt < 4 && !in_time; ++attempt) in_time = IsToldInTime(ending);
    EXPECT_TRUE(in_time);
  }
}

TEST(Endings, LeaveNothingBehindWhenTheyWereDeclared) {
  const Scene scene;
  // More sessions of others than there may be. Their number is brought down first.
  for (int i = 1000; i < 1041; ++i) {
    const fs::Path session = CompactDirectory(scene.crash) / ("process_" + std::to_string(i));
    WriteFile(session / "emergency.bin", "");
    for (const char* name : {"metadata.json", "collector.json"}) {
      const json record = BuildBaseRecord({0xFFFFFFF0, "1"}, 1);
      ASSERT_TRUE(CommitEvidenceRecord(session / name, record, nullptr));
    }
  }
  ObservedProcess observed(scene, "exit-declared", "die_on_demand");
  const UniqueKernelHandle observer = OpenObserver(observed);
  observed.Die();
  EXPECT_EQ(ExitCodeOf(observed.handle()), 7u);
  EXPECT_EQ(ExitCodeOf(observer.get()), 0u);
  EXPECT_FALSE(Exists(observed.session()));
  std::error_code ec;
  EXPECT_EQ(ListCompactSessions(scene.crash, ec).size(), 32u);
}

}  // namespace
}  // namespace zul::test
