// How processes end, and what the real observer, or whoever comes after it, tells of that.

#include <gtest/gtest.h>

#include "collector/emergency_record.h"
#include "collector/evidence_record.h"
#include "collector/evidence_sanitizer.h"
#include "collector/orphan_sessions.h"
#include "collector/retention.h"
#include "collector/session_directory.h"
#include "collector/shared_block_win32.h"
#include "core/text.h"
#include "tests/collector/observed_process_win32.h"

namespace zul::test {
namespace {

using nlohmann::json;

constexpr DWORD kTerminatedCode = 9;
constexpr DWORD kGivenUpOn = 71;
constexpr DWORD kWatchdogCode = 73;
constexpr const char* kFinished = "collector.json\nemergency.bin\nincident.json\nmetadata.json\n";

/// Lets it die in its way, or ends it from outside when its way is to wait.
DWORD Die(ObservedProcess& observed, std::string_view way) {
  observed.Die();
  if (way == "wait") ::TerminateProcess(observed.handle(), kTerminatedCode);
  return ExitCodeOf(observed.handle());
}

std::uint64_t EmergencySize(const fs::Path& session) {
  std::error_code ec;
  return fs::SizeOf(session / "emergency.bin", ec);
}

/// The build id of an executable as frames show it: what stands behind the CodeView signature.
std::string BuildIdOf(const fs::Path& executable) {
  const std::string bytes = ReadFile(executable);
  const std::size_t at = bytes.find("RSDS");
  std::string text;
  for (std::size_t i = at + 4; at != bytes.npos && i < at + 20; ++i) {
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned char>(bytes[i]));
    text += digits.data();
  }
  return text;
}

struct Ending {
  std::string way;
  DWORD exit_code;
  /// event, capture_status, capture_error, clean_shutdown_intent, exception_code
  const char* told;
  bool crashes = false;
  bool observer_late = false;  ///< the observer comes to it only when the process is gone
};
const Ending kEndings[] = {
    {"exit-other", 8, "process_exit_cause_unclassified exit_status_only - true -"},
    {"exit-undeclared", 7, "process_exit_cause_unclassified exit_status_only - false -"},
    {"abort", 3, "process_exit_cause_unclassified exit_status_only - false -"},
    {"wait", kTerminatedCode, "process_exit_cause_unclassified exit_status_only - false -"},
    {"null-write", 0xC0000005, "native_exception complete - false 3221225477", true},
    {"deep-null-write", 0xC0000005, "native_exception complete - false 3221225477", true},
    // It is met in a routine of the compiler that has no unwind information.
    {"stack-overflow", 0xC00000FD,
     "native_exception partial stack_unwind_incomplete false 3221225725", true},
    {"heaps-locked", 0xC0000005, "native_exception complete - false 3221225477", true},
    {"uncaught", 3, "std_terminate complete - false 0", true},
    // Two threads at once: the first is told, the second ends the process.
    {"crash-twice", 0xC000001D, "native_exception partial stack_unwind_incomplete false 3221225477",
     true, true},
};

/// A stack holds modules, offsets and builds; of what the test program knows it is right.
void ExpectFrames(const Ending& ending, const json& record, const ObservedProcess& observed) {
  const json& frames = record.at("frames");
  EXPECT_EQ(SanitizeEvidenceRecord(record).at("frames"), frames);
  EXPECT_EQ(record.at("thread_id"), observed.start().at("thread"));
  const bool deep = ending.way == "deep-null-write";
  EXPECT_EQ(record.value("frames_limited", false), deep);
  EXPECT_TRUE(deep ? frames.size() == 48 : frames.size() < 48) << frames.size();
  for (const char* counter : {"working_set_bytes", "private_bytes", "handle_count"}) {
    EXPECT_TRUE(record.value(counter, json()).is_number_unsigned()) << counter;
  }
  bool in_program = false;
  for (const json& frame : frames) {
    EXPECT_TRUE(frame.at("module_resolved")) << frame;
    if (frame.value("module", "") != "die_on_demand.exe") continue;
    in_program = true;
    EXPECT_EQ(frame.value("pdb_guid", ""),
              BuildIdOf(Built("tests/collector/programs/die_on_demand.exe")));
    EXPECT_EQ(frame.value("pdb_age", 0u), 1u);
    EXPECT_GT(frame.at("image_timestamp"), 0u);
  }
  EXPECT_TRUE(in_program) << frames.dump(2);
  if (ending.way != "null-write") return;
  const auto offset =
      frames[0].at("rva").get<std::uint64_t>() - observed.start().at("rva").get<std::uint64_t>();
  EXPECT_LT(offset, 64u) << frames.dump(2);
}

/// False when the observer had to give up on the stack, as it may where a capture under Wine, which
/// reads the host's libraries too, meets a busy machine.
bool IsToldInTime(const Scene& scene, const Ending& ending, const fs::Path& crash) {
  ObservedProcess observed(scene, crash, ending.way);
  EXPECT_EQ(Told(observed.start(), {"ready", "reason"}), "true ");
  const UniqueKernelHandle observer = observed.OpenObserver();
  if (ending.observer_late) Suspend(observer.get());
  EXPECT_EQ(Die(observed, ending.way), ending.exit_code);
  if (ending.observer_late) Resume(observer.get());
  const DWORD observer_exit = ExitCodeOf(observer.get());
  if (observer_exit == kWatchdogCode) return false;
  EXPECT_EQ(observer_exit, 0u);
  const fs::Path session = observed.session();
  EXPECT_EQ(ListTree(session), kFinished);
  EXPECT_EQ(EmergencySize(session), ending.crashes ? sizeof(EmergencyRecord) : 0u);
  const json record = Record(session, "incident.json");
  EXPECT_EQ(Told(record, {"event", "capture_status", "capture_error", "clean_shutdown_intent",
                          "exception_code"}),
            ending.told);
  EXPECT_EQ(Told(record, {"finalized", "exit_code_known", "exit_code", "exit_status_kind"}),
            "true true " + std::to_string(ending.exit_code) + " windows_process_exit_status");
  EXPECT_EQ(record.contains("frames"), ending.crashes);
  if (ending.crashes && !ending.observer_late) ExpectFrames(ending, record, observed);
  ExpectNothingPrivate(session);
  return true;
}

TEST(Endings, AreToldAsTheyWere) {
  const Scene scene;
  for (const Ending& ending : kEndings) {
    SCOPED_TRACE(ending.way);
    bool in_time = false;
    for (int attempt = 0; attempt < 4 && !in_time; ++attempt) {
      in_time = IsToldInTime(scene, ending, scene.CrashFolder(ending.way));
    }
    EXPECT_TRUE(in_time);
  }
}

TEST(Endings, LeaveNothingBehindWhenTheyWereDeclared) {
  const Scene scene;
  ObservedProcess observed(scene, scene.CrashFolder("crash"), "exit-declared");
  const UniqueKernelHandle observer = observed.OpenObserver();
  EXPECT_EQ(Die(observed, "exit-declared"), 7u);
  EXPECT_EQ(ExitCodeOf(observer.get()), 0u);
  EXPECT_EQ(ListTree(scene.CrashFolder("crash")), "compact_process/\n");
}

TEST(Endings, NameAModuleOnlyWhenItsNameIsNotPrivate) {
  const Scene scene;
  const fs::Path program = scene.install() / *PathFromUtf8("Program paní Novákové.exe");
  WriteFile(program, ReadFile(Built("tests/collector/programs/die_on_demand.exe")));
  ObservedProcess observed(scene, scene.CrashFolder("crash"), "null-write", program);
  const UniqueKernelHandle observer = observed.OpenObserver();
  EXPECT_EQ(Die(observed, "null-write"), 0xC0000005);
  EXPECT_EQ(ExitCodeOf(observer.get()), 0u);
  const json frame = Record(observed.session(), "incident.json").at("frames").at(0);
  EXPECT_EQ(Told(frame, {"module", "pdb_guid"}), "unnamed_module " + BuildIdOf(program));
  ExpectNothingPrivate(observed.session());
}

TEST(Endings, MayComeAfterAHang) {
  const Scene scene;
  ObservedProcess observed(scene, scene.CrashFolder("crash"), "null-write");
  const UniqueKernelHandle observer = observed.OpenObserver();
  const SharedObjects shared(observer.get());
  ASSERT_TRUE(shared.block);
  CollectorBlock& block = *shared.block.get();
  block.ui_thread_id = observed.start().at("thread");
  PlaceRequest(block, ObserverRequest::kHang);
  ::SetEvent(shared.crash_event.get());
  EXPECT_EQ(::WaitForSingleObject(shared.ready_event.get(), 10000), WAIT_OBJECT_0);
  const json hang = Record(observed.session(), "hang.json");
  EXPECT_EQ(Told(hang, {"event", "thread_id", "live_stack_best_effort", "finalized"}),
            "ui_hang " + std::to_string(block.ui_thread_id) + " true false");
  const bool has_snapshots =
      ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "PssCaptureSnapshot") != nullptr;
  EXPECT_EQ(Told(hang, {"capture_status", "capture_error"}),
            has_snapshots ? "complete -" : "partial thread_snapshot_failed");
  EXPECT_EQ(hang.at("frames").empty(), !has_snapshots);
  EXPECT_EQ(Die(observed, "null-write"), 0xC0000005);
  EXPECT_EQ(ExitCodeOf(observer.get()), 0u);
  EXPECT_EQ(Told(Record(observed.session(), "incident.json"),
                 {"event", "capture_status", "ui_heartbeat_age_ms", "finalized"}),
            "native_exception complete - true");
  EXPECT_EQ(Record(observed.session(), "hang.json"), hang);
  ExpectNothingPrivate(observed.session());
}

TEST(Endings, AreNotWatchedByAnObserverWithWrongHandles) {
  const Scene scene;
  const std::pair<const wchar_t*, DWORD> cases[] = {
      {L"--observe", 64},
      {L"--observe 4 8 12", 64},
      {L"--observe 4 8 12 16 20", 64},
      {L"--observe 4 8 12 0x10", 64},
      {L"--observe 4 8 0 16", 64},
      {L"--observe 4 8 12 18446744073709551615", 64},
      {L"--observe 4 8 12 16", 65},
      {L"--observe 65540 65544 65548 65552", 65},
  };
  for (const auto& [arguments, exit_code] : cases) {
    const UniqueKernelHandle observer = StartProgram(scene.Observer(), arguments);
    EXPECT_EQ(ExitCodeOf(observer.get()), exit_code) << WideToUtf8Lossy(arguments);
  }
}

// -- without an observer to the end

struct Unfinished {
  const char* name;
  const char* reason;  ///< of the start; "" for one that was ready
  const char* way;
  /// What happens to the observer before the process dies, and to the process's death.
  void (*meanwhile)(ObservedProcess& observed, HANDLE observer);
  const char* on_disk;  ///< capture_status of incident.json
  const char* told;     ///< event and exception_code at the next start
  DWORD observer_exit = 0;
};

void JustDie(ObservedProcess& observed, HANDLE /*observer*/) {
  observed.Die();
}

/// Once the crash is on the disk, and the walk of the stack is under way. Nobody opens the record
/// meanwhile: it could not be replaced then.
void KillInCapture(ObservedProcess& observed, HANDLE observer) {
  const fs::Path incident = observed.session() / "incident.json";
  std::error_code ec;
  const std::uint64_t before = fs::SizeOf(incident, ec);
  observed.Die();
  for (int i = 0; i < 300 && fs::SizeOf(incident, ec) == before; ++i) ::Sleep(10);
  ::Sleep(200);
  ::TerminateProcess(observer, kTerminatedCode);
}

const Unfinished kUnfinished[] = {
    {"missing", "collector_executable_missing", "null-write", JustDie, "ready",
     "native_exception 3221225477"},
    {"no program", "collector_launch_failed", "null-write", JustDie, "ready",
     "native_exception 3221225477"},
    {"another build", "collector_ready_handshake_failed", "null-write", JustDie, "ready",
     "native_exception 3221225477"},
    {"killed", "", "uncaught",
     [](ObservedProcess& observed, HANDLE observer) {
       ::TerminateProcess(observer, kTerminatedCode);
       observed.Die();
     },
     "ready", "std_terminate 0", kTerminatedCode},
    {"killed in capture", "", "unwind-loop", KillInCapture, "collecting_stack", "std_terminate 0",
     kTerminatedCode},
    {"a walk without end", "", "unwind-loop", JustDie, "collecting_stack", "std_terminate 0",
     kWatchdogCode},
    {"stuck", "", "null-write",
     [](ObservedProcess& observed, HANDLE observer) {
       Suspend(observer);
       observed.Die();
     },
     "ready", "native_exception 3221225477", kGivenUpOn},
};

TEST(Endings, AreKnownAtTheNextStartWhenNoObserverFinished) {
  for (const Unfinished& row : kUnfinished) {
    SCOPED_TRACE(row.name);
    const Scene scene;
    const std::string name = row.name;
    std::error_code ec;
    if (name == "missing") fs::Remove(scene.Observer(), ec);
    if (name == "no program") WriteFile(scene.Observer(), "no program");
    const fs::Path crash = scene.CrashFolder("crash");
    ObservedProcess observed(
        scene, crash, row.way,
        Built(name == "another build"
                  ? "tests/collector/programs/die_on_demand_of_another_build.exe"
                  : "tests/collector/programs/die_on_demand.exe"));
    ASSERT_EQ(Told(observed.start(), {"reason"}), row.reason);
    UniqueKernelHandle observer;
    if (*row.reason == '\0') observer = observed.OpenObserver();
    row.meanwhile(observed, observer.get());
    EXPECT_NE(ExitCodeOf(observed.handle()), 0u);
    if (observer) {
      EXPECT_EQ(ExitCodeOf(observer.get()), row.observer_exit);
    }
    EXPECT_EQ(Told(Record(observed.session(), "incident.json"), {"capture_status", "finalized"}),
              std::string(row.on_disk) + " false");
    EXPECT_EQ(EmergencySize(observed.session()), sizeof(EmergencyRecord));
    const std::vector<OrphanSession> orphans = FinalizeOrphanSessions(crash);
    ASSERT_EQ(orphans.size(), 1u);
    EXPECT_EQ(orphans[0].directory, observed.session());
    EXPECT_EQ(
        Told(orphans[0].record, {"event", "exception_code", "capture_status", "capture_error"}),
        std::string(row.told) + " incomplete collector_did_not_finalize");
    ExpectNothingPrivate(observed.session());
  }
}

// -- how many sessions there may be

/// Sessions of others, with or without an observer that has told of itself.
void AddSessions(const fs::Path& crash, int count, bool finished, const ProcessKey& observed) {
  for (int i = 0; i < count; ++i) {
    const fs::Path session =
        CompactDirectory(crash) / ("process_" + std::to_string(1000 + i) + "_7_7");
    WriteFile(session / "emergency.bin", "");
    const json record = BuildBaseRecord(observed, 1000);
    ASSERT_TRUE(CommitEvidenceRecord(session / "metadata.json", record, nullptr));
    ASSERT_TRUE(!finished || CommitEvidenceRecord(session / "collector.json", record, nullptr));
  }
}

TEST(Endings, AreKeptInBounds) {
  const ProcessKey dead{0xFFFFFFF0, "1"};
  const ProcessKey living{::GetCurrentProcessId(), ""};
  const struct {
    int count;
    bool finished;
    const ProcessKey& observed;
    const char* start;     // ready, reason
    std::size_t sessions;  // while it runs
    const char* retention;
  } cases[] = {
      {33, true, dead, "true ", 33, "1"},
      {40, true, dead, "true ", 33, "8"},
      {41, true, dead, "true ", 33, "9"},
      {33, true, living, "true ", 34, "-"},
      {39, true, living, "true ", 40, "-"},
      {40, true, living, "false collector_session_budget_exhausted", 40, "-"},
      {39, false, dead, "true ", 40, "-"},
      {40, false, dead, "false collector_session_budget_exhausted", 40, "-"},
      {41, false, dead, "false collector_session_budget_exhausted", 41, "-"},
  };
  const Scene scene;
  int row = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(row);
    const fs::Path crash = scene.CrashFolder(std::to_string(row++));
    AddSessions(crash, c.count, c.finished, c.observed);
    WriteFile(CompactDirectory(crash) / "session_of_nobody" / "file", "");  // not counted
    ObservedProcess observed(scene, crash, "exit-declared");
    EXPECT_EQ(Told(observed.start(), {"ready", "reason"}), c.start);
    std::error_code ec;
    EXPECT_EQ(ListCompactSessions(crash, ec).size(), c.sessions);
    const fs::Path retention = CompactDirectory(crash) / "retention.json";
    const json told = Exists(retention) ? json::parse(ReadFile(retention)) : json::object();
    EXPECT_EQ(Told(told, {"expired_sessions"}), c.retention);
    UniqueKernelHandle observer;
    if (observed.start().at("ready")) observer = observed.OpenObserver();
    Die(observed, "exit-declared");
    if (observer) {
      EXPECT_EQ(ExitCodeOf(observer.get()), 0u);
    }
  }
}

}  // namespace
}  // namespace zul::test
