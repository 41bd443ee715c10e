// What earlier processes left, as files, and the reports that come of it.

#include <gtest/gtest.h>

#include <set>

#include "collector/evidence_record.h"
#include "collector/session_directory.h"
#include "core/process_environment.h"
#include "diagnostics/session_recovery.h"
#include "tests/diagnostics/started_diagnostics.h"
#include "tests/support/file_tricks.h"

namespace zul {
namespace {

using nlohmann::json;
using test::ReadFile;
using test::WriteFile;

const ProcessKey kDeadProcess{4294967280, "1"};

/// The session file of a process that is gone, with two steps.
json LeftSession() {
  json session = json::parse(R"({
      "session_id": "session_1", "termination_state": "active", "checkpoint_sequence": 4,
      "started_at_local": "2026-01-01 00:00:00", "updated_at_unix_ms": 1767225602000,
      "host_monotonic_ms": 1, "process_uptime_ms": 1500,
      "app": {"app_name": "QORVA", "version": "0.9", "exe": "C:\\Users\\me\\x.exe"},
      "runtime_state": {"stage": "apply", "job_name": "Smith poster", "odd": 1},
      "breadcrumbs": [
        {"sequence": 1, "time_local": "2026-01-01 00:00:00", "event": "application_started"},
        {"sequence": 2, "time_local": "2026-01-01 00:00:01", "event": "failed",
         "details": {"path": "C:\\Users\\me\\a.tif"}}]})");
  session["pid"] = kDeadProcess.pid;
  session["process_identity"] = kDeadProcess.identity;
  return session;
}

class Recovery : public test::StartedDiagnostics {
 protected:
  /// Runs all passes, as a first failure does, and gives the queued reports by name.
  std::vector<json> Recover() {
    RecoverCompactEvidence(crash_);
    RecoverOrphanDumps(crash_);
    RecoverSessions(crash_);
    std::error_code ec;
    std::set<fs::Path> files;
    for (const fs::DirectoryEntry& file : fs::ListDirectory(queue(), ec)) files.insert(file.path);
    std::vector<json> reports;
    for (const fs::Path& file : files) reports.push_back(ReadJson(file));
    return reports;
  }
  fs::Path Session(const char* name) const { return SessionStateDirectory(crash_) / name; }

  /// A compact session whose process and observer are gone; `incident` changes its base record.
  void LeaveCompactSession(const std::string& name, const json& incident) const {
    const fs::Path session = CompactDirectory(crash_) / name;
    WriteFile(session / "emergency.bin", "");
    json record = BuildBaseRecord(kDeadProcess, 1767225602000);
    record.update(incident);
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
      {"[]", unknown},
      {R"({"host_monotonic_ms": 7000, "updated_at_unix_ms": 5000})", "abrupt_exit_same_host_boot",
       true},
      {R"({"host_monotonic_ms": 7001, "updated_at_unix_ms": 5001})", restart},
      {R"({"host_monotonic_ms": 7001, "ui_heartbeat": {"age_ms": 44999}})", restart},
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

TEST_F(Recovery, MakesOneReportOfASessionWhoseProcessIsGone) {
  WriteFile(Session("active_1_a.json"), LeftSession().dump());
  ASSERT_EQ(Recover().size(), 1u);
  const json report = Recover().at(0);  // not reported a second time
  EXPECT_EQ(report["kind"], "unexpected_exit");
  EXPECT_EQ(report["reason"],
            "Previous QORVA process ended without clean shutdown; exact OS cause unavailable");
  EXPECT_EQ(report["breadcrumbs"][1]["details"]["path"], "[redacted-path]");
  EXPECT_EQ(report["previous_session_forensics"]["runtime_state"].dump(),
            R"({"job_name":"[redacted-name]","stage":"apply"})");
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
  EXPECT_EQ(report.dump().find("Users"), std::string::npos);
}

TEST_F(Recovery, TouchesOnlySessionFilesThatAreOver) {
  json living = LeftSession();
  living["pid"] = CurrentProcessId();
  living["process_identity"] =
      std::to_string(QueryProcess(CurrentProcessId()).creation_time.value());
  json recycled = living;
  recycled["process_identity"] = "1";
  json finished = LeftSession();
  finished["termination_state"] = "clean_shutdown";
  WriteFile(Session("active_1_living.json"), living.dump());
  WriteFile(Session("active_2_recycled.json"), recycled.dump());
  WriteFile(Session("active_3_finished.json"), finished.dump());
  WriteFile(Session("active_4_broken.json"), "{\"pid\": 1,");
  WriteFile(Session("active_5_nul.json"), LeftSession().dump() + '\0' + "behind it");
  WriteFile(Session("active_6_old.json.recovering.77"), LeftSession().dump());
  WriteFile(Session("notes.txt"), "x");
  EXPECT_EQ(Recover().size(), 1u);
  EXPECT_EQ(test::ListTree(SessionStateDirectory(crash_)),
            "active_1_living.json\nactive_4_broken.json.invalid\nactive_5_nul.json.invalid\n"
            "active_6_old.json.recovering.77\nnotes.txt\n");
  EXPECT_EQ(ReadFile(Session("active_1_living.json")), living.dump());
}

TEST_F(Recovery, LeavesWhatItCannotQueueForTheNextStart) {
  WriteFile(Session("active_1_a.json"), LeftSession().dump());
  LeaveCompactSession("process_1_1_1", json::object());
  WriteFile(queue(), "a file where the queue belongs");
  const std::string before = test::ListTree(crash_);
  RecoverCompactEvidence(crash_);
  EXPECT_EQ(RecoverSessions(crash_), 0u);
  EXPECT_EQ(test::ListTree(crash_), before);
  std::error_code ec;
  fs::Remove(queue(), ec);
  EXPECT_EQ(Recover().size(), 2u);
}

TEST_F(Recovery, MakesOneReportOfEachCompactSessionThatDidNotEndCleanly) {
  const struct {
    const char* name;
    const char* incident;
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
  for (const auto& c : cases) LeaveCompactSession(c.name, json::parse(c.incident));
  LeaveCompactSession("process_4", {{"event", "clean_exit"}, {"finalized", true}});
  // What the process was doing: from the session's own checkpoint, or unknown.
  json checkpoint = LeftSession();
  checkpoint["schema"] = kEvidenceSchema;
  const fs::Path all = CompactDirectory(crash_);
  ASSERT_TRUE(CommitEvidenceRecord(all / "process_2/checkpoint.json", checkpoint, nullptr));
  checkpoint["process_identity"] = "another";
  ASSERT_TRUE(CommitEvidenceRecord(all / "process_3/checkpoint.json", checkpoint, nullptr));
  // One that was claimed by a process that died, and one that a living process is at work on.
  std::error_code ec;
  ASSERT_TRUE(fs::Rename(all / "process_3", all / "process_3.recovering.4294967280", ec));
  const bool init_lives = !test::kOnWindows;  // where there is a process of a known id
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
    EXPECT_EQ(report.contains("previous_session_forensics"), known);
    EXPECT_EQ(report["breadcrumbs"].size(), known ? 2u : 0u);
    EXPECT_EQ(report["details"].value("previous_checkpoint", ""), known ? "" : "unavailable");
  }

  // Without one of its own, the process's session file.
  LeaveCompactSession("process_7", {{"finalized", true}});
  WriteFile(Session("active_1_a.json"), LeftSession().dump());
  RecoverCompactEvidence(crash_);
  const json report = ReadJson(queue() / "compact_process_7.json");
  EXPECT_EQ(report["previous_session_forensics"]["checkpoint_sequence"], 4);
}

TEST_F(Recovery, ReportsADumpOnceAndLeavesIt) {
  const std::pair<const char*, std::string> dumps[] = {
      {"qorva_crash_1", ".dmp"}, {"qorva_crash_2", ".dmp"}, {"qorva_crash_3", ".dmp.partial"}};
  for (const auto& [name, suffix] : dumps) WriteFile(crash_ / (name + suffix), "MDMP");
  WriteFile(crash_ / "qorva_crash_2.dmp", "");
  for (const char* other : {"crash.dmp", "a_crash_b.txt", "seen_crash_1.dmp", "seen_crash_1.txt"}) {
    WriteFile(crash_ / other, "x");
  }
  EXPECT_EQ(Recover().size(), 3u);
  std::set<std::string> told;
  for (const json& report : Recover()) {
    told.insert(report["kind"].get<std::string>() + ": " + report["reason"].get<std::string>() +
                report["artifacts"]["dump"]["size_bytes"].dump());
  }
  const std::set<std::string> expected = {
      "crash: Recovered orphan crash dump after startup4",
      "crash_capture_failed: Crash capture produced a zero-byte orphan dump0",
      "crash_capture_failed: Crash capture left an uncommitted partial dump4"};
  EXPECT_EQ(told, expected);
  for (const auto& [name, suffix] : dumps) {
    EXPECT_TRUE(test::Exists(crash_ / (name + suffix)));
    const char* const end = suffix == ".dmp" ? ".txt" : "_capture_failed.txt";
    EXPECT_TRUE(ReadFile(crash_ / (std::string(name) + end)).starts_with("QORVA recovered crash"));
  }
}

}  // namespace
}  // namespace zul
