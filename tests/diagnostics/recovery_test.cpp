// The evidence that earlier processes left, and the reports that recovery makes of it.

#include <set>

#include "collector/evidence_record.h"
#include "collector/session_directory.h"
#include "core/process_environment.h"
#include "diagnostics/recovered_session.h"
#include "tests/diagnostics/started_diagnostics.h"
#include "tests/support/file_tricks.h"

namespace zul {
namespace {

using nlohmann::json;
using test::ReadFile;
using test::WriteFile;

const ProcessKey kDeadProcess{4294967280, "1"};

/// The session file of a dead process, with two steps and the changes in `change`.
json LeftSession(const json& change = json::object()) {
  json session = json::parse(R"({
      "session_id": "session_1", "termination_state": "active", "checkpoint_sequence": 4,
      "started_at_local": "2026-01-01 00:00:00", "updated_at_local": "C:\\Users\\me",
      "updated_at_unix_ms": 1767225602000,
      "host_monotonic_ms": 1, "process_uptime_ms": 1500, "pid": 4294967280, "process_identity": "1",
      "app": {"app_name": "QORVA", "version": "0.9", "build_id": "7", "user": "C:\\Users\\me"},
      "runtime_state": {"stage": "apply", "job_name": "Smith poster", "odd": 1},
      "breadcrumbs": [
        {"sequence": 1, "time_local": "2026-01-01 00:00:00", "event": "application_started"},
        {"sequence": 2, "time_local": "2026-01-01 00:00:01", "event": "failed",
         "details": {"path": "C:\\Users\\me\\a.tif"}}]})");
  session.update(change);
  return session;
}

class Recovery : public test::StartedDiagnostics {
 protected:
  /// Recovers as the first failure of a process does. Returns the queued reports, by file name.
  std::vector<json> Recover() {
    StartDiagnosticsSession();
    FinishDiagnosticsSession(std::nullopt);
    std::vector<json> reports;
    for (const fs::Path& file : ListReports(queue_)) reports.push_back(ReadJson(file));
    return reports;
  }
  fs::Path Session(const std::string& name) const { return SessionStateDirectory(crash_) / name; }

  /// Leaves a compact session of a dead process and observer. `change` applies to its base record.
  void LeaveCompactSession(const std::string& name, const json& change) const {
    const fs::Path session = CompactDirectory(crash_) / name;
    WriteFile(session / "emergency.bin", "");
    json record = BuildBaseRecord(kDeadProcess, 1767225602000);
    record["build_id"] = "of-the-dead";
    record.update(change);
    EXPECT_TRUE(CommitEvidenceRecord(session / "incident.json", record, nullptr));
  }
};

TEST(SessionEnd, IsClassifiedByWhatTheEvidenceSupports) {
  const std::string unknown = "abrupt_exit_timing_unknown";
  const std::string restart = "recovered_after_host_restart_or_monotonic_reset";
  const std::string stall = "ui_stall_then_abrupt_exit";
  const struct {
    const char* session;
    std::string end;
    bool age_known = false;
  } cases[] = {
      {R"({"host_monotonic_ms": 7000, "updated_at_unix_ms": 5000})", "abrupt_exit_same_host_boot",
       true},
      {R"({"host_monotonic_ms": 7001, "updated_at_unix_ms": 5001, "ui_heartbeat": {"age_ms": 44999}})",
       restart},
      {R"({"host_monotonic_ms": 7001, "ui_heartbeat": {"age_ms": 45000}})", stall},
      {R"({"ui_heartbeat": {"watchdog_reported_stall": true}})", stall},
      {R"({"ui_heartbeat": {"watchdog_reported_stall": true},
           "breadcrumbs": [{"event": "x"}, {"event": "diagnostics_shutdown_started"}]})",
       "interrupted_during_shutdown"},
      {R"({"breadcrumbs": [{"event": "diagnostics_shutdown_started"}, {"event": "x"}]})", unknown},
      {R"({"breadcrumbs": "x", "ui_heartbeat": 1, "host_monotonic_ms": -1})", unknown},
  };
  for (const auto& c : cases) {
    const SessionEndClassification end = ClassifySessionEnd(json::parse(c.session), 5000, 7000);
    EXPECT_EQ(end.exit_evidence_class, c.end) << c.session;
    EXPECT_EQ(end.reason, c.end == restart ? "host_restart" : "unexpected_exit") << c.session;
    EXPECT_EQ(end.checkpoint_age_known, c.age_known) << c.session;
  }
}

TEST_F(Recovery, ReportsTheSessionOfADeadProcessOnce) {
  WriteFile(Session("active_1_a.json"), LeftSession().dump());
  ASSERT_EQ(Recover().size(), 1u);
  EXPECT_TRUE(LogHas("Diagnostics recovered 1 unfinished session(s)."));
  const json report = Recover().at(0);
  EXPECT_EQ(report["reason"],
            "Previous QORVA process ended without clean shutdown; exact OS cause unavailable");
  EXPECT_EQ(report["app"]["version"], "0.9");
  const std::string text = report["report_text"];
  for (const char* line :
       {"QORVA recovered session report\ntime_local=",
        "\nevidence_classification=abrupt_exit_same_host_boot\ncheckpoint_age_ms=",
        "\nhost_monotonic_reset=false\ncheckpoint_sequence=4\nprocess_uptime_ms=1500\n",
        "\n=== last known runtime state ===\njob_name=[redacted-name]\nstage=apply\n",
        ("\n=== recent structured steps ===\nstep=1 time=2026-01-01 00:00:00 "
         "event=application_started\nstep=2 time=2026-01-01 00:00:01 event=failed "
         "path=[redacted-path]\n")}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "\n---\n" << text;
  }
  for (const char* word : {"Users", "Smith"}) {
    EXPECT_EQ(report.dump().find(word), std::string::npos);
  }
}

TEST_F(Recovery, TouchesOnlyTheSessionFilesOfDeadProcesses) {
  const std::uint32_t pid = CurrentProcessId();
  const std::string identity = std::to_string(QueryProcess(pid).creation_time.value());
  const std::string dead = LeftSession().dump();
  test::Files left = {
      {"1.json", LeftSession({{"pid", pid}, {"process_identity", identity}}).dump()},
      {"2.json.recovering.77", dead},
      {"3.txt", dead}};
  const test::Files invalid = {{"4.json", "{\"pid\": 1,"},
                               {"5.json", dead + '\0' + "more"},
                               {"6.json", dead + std::string(524288, ' ')}};
  test::Files all = {{"7.json", LeftSession({{"termination_state", "clean_shutdown"}}).dump()},
                     {"8_of_a_recycled_id.json", LeftSession({{"pid", pid}}).dump()}};
  for (const auto& files : {left, invalid}) all.insert(files.begin(), files.end());
  for (const auto& [name, contents] : all) WriteFile(Session(name), contents);
  EXPECT_EQ(Recover().size(), 1u);
  for (const auto& [name, contents] : invalid) left.emplace(name + ".invalid", contents);
  EXPECT_EQ(test::FilesBelow(SessionStateDirectory(crash_)), left);
}

TEST_F(Recovery, LeavesWhatItCannotQueueForTheNextStart) {
  WriteFile(Session("active_1_a.json"), LeftSession().dump());
  LeaveCompactSession("process_1_1_1", json::object());
  WriteFile(crash_ / "qorva_crash_1.dmp", "MDMP");
  WriteFile(queue_, "a file in the place of the queue");
  const std::string before = test::ListTree(crash_);
  EXPECT_TRUE(Recover().empty());
  EXPECT_EQ(test::ListTree(crash_), before);
  std::error_code ec;
  fs::Remove(queue_, ec);
  EXPECT_EQ(Recover().size(), 3u);
}

TEST_F(Recovery, ReportsEachCompactSessionThatDidNotEndCleanly) {
  const struct {
    const char* name;
    const char* change;
    const char* kind;
    const char* evidence;
  } cases[] = {
      {"process_1", R"({"event": "ui_hang", "capture_status": "partial"})", "hang",
       "ui_hang; capture=incomplete"},
      {"process_2",
       R"({"event": "native_exception", "exception_observed": true, "capture_status": "complete",
           "finalized": true})",
       "crash", "native_exception; capture=complete"},
      {"process_3", R"({"capture_status": "C:\\x", "finalized": true})", "unexpected_exit",
       "observer_started; capture=unknown"},
  };
  for (const auto& c : cases) LeaveCompactSession(c.name, json::parse(c.change));
  LeaveCompactSession("process_4", {{"event", "clean_exit"}, {"finalized", true}});
  // A checkpoint counts only for the process that it names.
  const fs::Path all = CompactDirectory(crash_);
  for (const auto& [name, identity] : {std::pair("process_2", "1"), {"process_3", "another"}}) {
    const json checkpoint =
        LeftSession({{"schema", kEvidenceSchema}, {"process_identity", identity}});
    ASSERT_TRUE(CommitEvidenceRecord(all / name / "checkpoint.json", checkpoint, nullptr));
    json hang = BuildBaseRecord({kDeadProcess.pid, identity}, 1);
    hang.update({{"event", "ui_hang"}, {"private", "x"}, {"frames", json(1, {{"rva", 7}})}});
    ASSERT_TRUE(CommitEvidenceRecord(all / name / "hang.json", hang, nullptr));
  }
  // One session was claimed by a process that died, another one by a living process.
  std::error_code ec;
  ASSERT_TRUE(fs::Rename(all / "process_3", all / "process_3.recovering.4294967280", ec));
  const bool init_lives = !test::kOnWindows;  // the one process whose id is known
  if (init_lives) LeaveCompactSession("process_6.recovering.1", json::object());

  const std::vector<json> reports = Recover();
  EXPECT_EQ(fs::ListDirectory(all, ec).size(), init_lives ? 1u : 0u);
  ASSERT_EQ(reports.size(), std::size(cases));
  for (std::size_t i = 0; i < reports.size(); ++i) {
    const json& report = reports[i];
    SCOPED_TRACE(report.dump(2));
    EXPECT_EQ(report["kind"], cases[i].kind);
    EXPECT_EQ(report["reason"], std::string("Independent process evidence: ") + cases[i].evidence);
    EXPECT_EQ(report["client_report_id"], std::string("compact_") + cases[i].name);
    const bool known = i == 1;
    EXPECT_EQ(report["breadcrumbs"].size(), known ? 2u : 0u);
    EXPECT_EQ(report["details"].value("previous_checkpoint", ""), known ? "" : "unavailable");
    EXPECT_EQ(report["app"]["build_id"], "of-the-dead") << "not that of this process";
    EXPECT_EQ(report.contains("compact_process_hang"), known);
    EXPECT_EQ(
        report["upload_contract"]["what_uploaded"].dump().find("_hang\"") != std::string::npos,
        known);
    if (!known) continue;
    EXPECT_EQ(report["compact_process_hang"]["frames"], json(1, {{"rva", 7}}));
    EXPECT_FALSE(report["compact_process_hang"].contains("private"));
  }

  // The session file serves where the compact session has no checkpoint.
  LeaveCompactSession("process_7", {{"finalized", true}});
  WriteFile(Session("active_1_a.json"), LeftSession().dump());
  Recover();
  const json report = ReadJson(queue_ / "compact_process_7.json");
  EXPECT_EQ(report["previous_session_forensics"]["checkpoint_sequence"], 4);
  EXPECT_EQ(report["app"].value("build_id", "") + report["app"].value("version", ""), "70.9");
}

TEST_F(Recovery, ReportsADumpOnceAndLeavesIt) {
  const test::Files dumps = {{"qorva_crash_1.dmp", "MDMP"},
                             {"qorva_crash_2.dmp", ""},
                             {"qorva_crash_3.dmp.partial", "MDMP"},
                             {"crash.dmp", "not ours"},
                             {"seen_crash_1.dmp", "x"},
                             {"seen_crash_1.txt", "x"}};
  for (const auto& [name, contents] : dumps) WriteFile(crash_ / name, contents);
  EXPECT_EQ(Recover().size(), 3u);
  EXPECT_TRUE(LogHas("Diagnostics report queued: qorva_crash_capture_failed_"));
  EXPECT_FALSE(LogHas("Diagnostics report queued: qorva_crash_2"));
  std::set<std::string> reported;
  for (const json& report : Recover()) {
    reported.insert(report["kind"].get<std::string>() + ": " + report["reason"].get<std::string>() +
                    report["artifacts"]["dump"]["size_bytes"].dump());
  }
  const std::set<std::string> expected = {
      "crash: Recovered orphan crash dump after startup4",
      "crash_capture_failed: Crash capture produced a zero-byte orphan dump0",
      "crash_capture_failed: Crash capture left an uncommitted partial dump4"};
  EXPECT_EQ(reported, expected);
  for (const auto& dump : dumps) EXPECT_TRUE(test::Exists(crash_ / dump.first));
  for (const char* text : {"1.txt", "2.txt", "3_capture_failed.txt"}) {
    EXPECT_TRUE(ReadFile(crash_ / ("qorva_crash_" + std::string(text))).starts_with("QORVA reco"));
  }
}

}  // namespace
}  // namespace zul
