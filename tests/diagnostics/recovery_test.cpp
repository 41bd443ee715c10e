// What earlier processes left, as files, and the reports that come of it.

#include <gtest/gtest.h>

#include <algorithm>

#include "collector/evidence_record.h"
#include "collector/orphan_sessions.h"
#include "collector/session_directory.h"
#include "core/process_environment.h"
#include "diagnostics/session_recovery.h"
#include "tests/diagnostics/left_evidence.h"
#include "tests/diagnostics/started_diagnostics.h"
#include "tests/support/file_tricks.h"

namespace zul {
namespace {

using nlohmann::json;
using test::WriteFile;

class Recovery : public test::StartedDiagnostics {
 protected:
  /// Runs all passes, as a first failure does, and gives the queued reports by name.
  std::vector<json> Recover() {
    RecoverCompactEvidence(crash_);
    RecoverOrphanDumps(crash_);
    recovered_ = RecoverSessions(crash_);
    std::vector<json> reports;
    if (!test::Exists(PendingReportsDirectory(crash_))) return reports;
    std::error_code ec;
    std::vector<fs::DirectoryEntry> files = fs::ListDirectory(PendingReportsDirectory(crash_), ec);
    std::sort(files.begin(), files.end(),
              [](const auto& a, const auto& b) { return a.path < b.path; });
    for (const fs::DirectoryEntry& file : files) reports.push_back(ReadJson(file.path));
    return reports;
  }
  fs::Path Session(const char* name) const { return SessionStateDirectory(crash_) / name; }

  std::size_t recovered_ = 0;
};

TEST(SessionEnd, IsClassifiedByWhatTheEvidenceSupports) {
  constexpr std::uint64_t kNow = 5000000;
  constexpr std::uint64_t kHost = 100000;
  const json shutdown = {{{"event", "x"}}, {{"event", "diagnostics_shutdown_started"}}};
  const json stalled = {{"watchdog_reported_stall", true}, {"sequence", 9}};
  const struct {
    json session;
    const char* classification;
    const char* reason;
    bool age_known;
  } cases[] = {
      {json::object(), "abrupt_exit_timing_unknown", "unexpected_exit", false},
      {json::array(), "abrupt_exit_timing_unknown", "unexpected_exit", false},
      {{{"host_monotonic_ms", kHost}, {"updated_at_unix_ms", kNow}},
       "abrupt_exit_same_host_boot",
       "unexpected_exit",
       true},
      {{{"host_monotonic_ms", kHost + 1}, {"updated_at_unix_ms", kNow + 1}},
       "recovered_after_host_restart_or_monotonic_reset",
       "host_restart",
       false},
      {{{"host_monotonic_ms", kHost + 1}, {"ui_heartbeat", {{"age_ms", 44999}}}},
       "recovered_after_host_restart_or_monotonic_reset",
       "host_restart",
       false},
      {{{"host_monotonic_ms", kHost + 1}, {"ui_heartbeat", {{"age_ms", 45000}}}},
       "ui_stall_then_abrupt_exit",
       "unexpected_exit",
       false},
      {{{"ui_heartbeat", stalled}}, "ui_stall_then_abrupt_exit", "unexpected_exit", false},
      {{{"ui_heartbeat", stalled}, {"host_monotonic_ms", kHost + 1}, {"breadcrumbs", shutdown}},
       "interrupted_during_shutdown",
       "unexpected_exit",
       false},
      {{{"breadcrumbs", {shutdown[1], shutdown[0]}}, {"host_monotonic_ms", -1}},
       "abrupt_exit_timing_unknown",
       "unexpected_exit",
       false},
      {{{"breadcrumbs", "x"}, {"ui_heartbeat", 1}, {"host_monotonic_ms", 1.5}},
       "abrupt_exit_timing_unknown",
       "unexpected_exit",
       false},
  };
  for (const auto& c : cases) {
    const SessionEndClassification end = ClassifySessionEnd(c.session, kNow, kHost);
    EXPECT_EQ(end.exit_evidence_class, c.classification) << c.session;
    EXPECT_EQ(end.reason, c.reason) << c.session;
    EXPECT_EQ(end.checkpoint_age_known, c.age_known) << c.session;
  }
}

TEST_F(Recovery, MakesOneReportOfASessionWhoseProcessIsGone) {
  json session = test::LeftSession();
  session["session_id"] = "session_20260101_000000_1_1";
  session["runtime_state"] = {{"stage", "apply"}, {"job_name", "Smith poster"}, {"odd", 1}};
  session["breadcrumbs"].push_back({{"sequence", 2},
                                    {"time_local", "2026-01-01 00:00:01"},
                                    {"event", "failed"},
                                    {"details", {{"path", "C:\\Users\\me\\a.tif"}}}});
  session["app"]["exe"] = "C:\\Users\\me\\x.exe";
  WriteFile(Session("active_1_a.json"), session.dump());
  const std::vector<json> reports = Recover();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(recovered_, 1u);
  const json& report = reports[0];
  EXPECT_EQ(report["kind"], "unexpected_exit");
  EXPECT_EQ(report["reason"],
            "Previous QORVA process ended without clean shutdown; exact OS cause unavailable");
  EXPECT_EQ(report["app"]["version"], "0.9");
  EXPECT_EQ(report["app"]["exe"]["extension"], "");
  EXPECT_EQ(report["breadcrumbs"][1]["details"]["path"], "[redacted-path]");
  EXPECT_EQ(report["previous_session_forensics"]["runtime_state"].dump(),
            R"({"job_name":"[redacted-name]","stage":"apply"})");
  EXPECT_EQ(report["previous_session_forensics"]["classification"], "abrupt_exit_same_host_boot");
  EXPECT_EQ(report["privacy"]["last_session_forensics"], "bounded_sanitized_state_only");
  EXPECT_EQ(report["upload_contract"]["what_uploaded"].back(), "last_session_forensics");
  const json& details = report["details"];
  EXPECT_EQ(details["last_event"], "failed");
  EXPECT_EQ(details["breadcrumb_count"], "2");
  EXPECT_EQ(details["previous_session_id"], "session_20260101_000000_1_1");
  EXPECT_EQ(details["checkpoint_sequence"], "4");
  const std::string text = report["report_text"];
  EXPECT_TRUE(text.starts_with("QORVA recovered session report\ntime_local=")) << text;
  for (const char* line :
       {"\nreason=Previous QORVA process ended", "\nprevious_session_started=2026-01-01 00:00:00\n",
        "\nevidence_classification=abrupt_exit_same_host_boot\ncheckpoint_age_ms=",
        "\nhost_monotonic_reset=false\ncheckpoint_sequence=4\nprocess_uptime_ms=1500\n",
        "\n=== last known runtime state ===\njob_name=[redacted-name]\nstage=apply\n",
        "\n=== recent structured steps ===\nstep=1 time=2026-01-01 00:00:00 "
        "event=application_started\nstep=2 time=2026-01-01 00:00:01 event=failed "
        "path=[redacted-path]\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "\n---\n" << text;
  }
  EXPECT_EQ(report.dump().find("Users"), std::string::npos);
  EXPECT_EQ(Recover().size(), 1u) << "it was reported a second time";
}

TEST_F(Recovery, TouchesOnlySessionFilesThatAreOver) {
  json living = test::LeftSession();
  living["pid"] = CurrentProcessId();
  living["process_identity"] =
      std::to_string(QueryProcess(CurrentProcessId()).creation_time.value());
  json recycled = living;
  recycled["process_identity"] = "1";
  json finished = test::LeftSession();
  finished["termination_state"] = "clean_shutdown";
  WriteFile(Session("active_1_living.json"), living.dump());
  WriteFile(Session("active_2_recycled.json"), recycled.dump());
  WriteFile(Session("active_3_finished.json"), finished.dump());
  WriteFile(Session("active_4_broken.json"), "{\"pid\": 1,");
  WriteFile(Session("active_5_list.json"), "[]");
  WriteFile(Session("active_6_deep.json"), "{\"a\":" + std::string(100000, '['));
  WriteFile(Session("active_7_large.json"), "{\"a\":\"" + std::string(524288, 'x') + "\"}");
  WriteFile(Session("active_7_nul.json"), test::LeftSession().dump() + '\0' + "behind it");
  WriteFile(Session("active_8_old.json.recovering.77"), test::LeftSession().dump());
  WriteFile(Session("active_9.json/inner"), "x");
  WriteFile(Session("notes.txt"), "x");
  EXPECT_EQ(Recover().size(), 1u);
  EXPECT_EQ(recovered_, 1u);
  EXPECT_EQ(test::ListTree(SessionStateDirectory(crash_)),
            "active_1_living.json\nactive_4_broken.json.invalid\nactive_5_list.json.invalid\n"
            "active_6_deep.json.invalid\nactive_7_large.json.invalid\n"
            "active_7_nul.json.invalid\n"
            "active_8_old.json.recovering.77\nactive_9.json/\nactive_9.json/inner\nnotes.txt\n");
  EXPECT_EQ(test::ReadFile(Session("active_1_living.json")), living.dump());
}

TEST_F(Recovery, LeavesWhatItCannotQueueForTheNextStart) {
  WriteFile(Session("active_1_a.json"), test::LeftSession().dump());
  test::LeaveCompactSession(crash_, "process_1_1_1", {});
  WriteFile(PendingReportsDirectory(crash_), "a file where the queue belongs");
  const std::string before = test::ListTree(crash_);
  RecoverCompactEvidence(crash_);
  EXPECT_EQ(RecoverSessions(crash_), 0u);
  EXPECT_EQ(test::ListTree(crash_), before);
  std::error_code ec;
  fs::Remove(PendingReportsDirectory(crash_), ec);
  EXPECT_EQ(Recover().size(), 2u);
}

TEST_F(Recovery, MakesOneReportOfEachCompactSessionThatDidNotEndCleanly) {
  const struct {
    const char* name;
    json incident;
    const char* kind;  // empty for no report
    const char* reason;
  } cases[] = {
      {"process_1", {{"event", "clean_exit"}, {"finalized", true}}, "", ""},
      {"process_2",
       {{"event", "native_exception"},
        {"exception_observed", true},
        {"capture_status", "complete"},
        {"finalized", true}},
       "crash",
       "Independent process evidence: native_exception; capture=complete"},
      {"process_3",
       {{"event", "ui_hang"}, {"capture_status", "partial"}, {"finalized", true}},
       "hang",
       "Independent process evidence: ui_hang; capture=partial"},
      {"process_4",
       {{"event", "process_exit_cause_unclassified"},
        {"finalized", true},
        {"capture_status", "exit_status_only"}},
       "unexpected_exit",
       "Independent process evidence: process_exit_cause_unclassified; capture=exit_status_only"},
      {"process_5",
       {},
       "unexpected_exit",
       "Independent process evidence: observer_started; capture=incomplete"},
      {"process_6",
       {{"capture_status", "C:\\x"}, {"finalized", true}},
       "unexpected_exit",
       "Independent process evidence: observer_started; capture=unknown"},
  };
  for (const auto& c : cases) test::LeaveCompactSession(crash_, c.name, c.incident);
  // What the process was doing: from the session's own checkpoint, from a session file, or unknown.
  json checkpoint = test::LeftSession();
  checkpoint["schema"] = kEvidenceSchema;
  ASSERT_TRUE(CommitEvidenceRecord(CompactDirectory(crash_) / "process_2/checkpoint.json",
                                   checkpoint, nullptr));
  checkpoint["process_identity"] = "another";
  ASSERT_TRUE(CommitEvidenceRecord(CompactDirectory(crash_) / "process_3/checkpoint.json",
                                   checkpoint, nullptr));
  // One that was claimed by a process that died, and one that a living process is at work on.
  fs::Path claimed = CompactDirectory(crash_) / "process_5";
  claimed += ".recovering.4294967280";
  std::error_code ec;
  ASSERT_TRUE(fs::Rename(CompactDirectory(crash_) / "process_5", claimed, ec));
  const bool init_lives = !test::kOnWindows;  // where there is a process of a known id
  if (init_lives) test::LeaveCompactSession(crash_, "process_7.recovering.1", {});

  const std::vector<json> reports = Recover();
  EXPECT_EQ(test::ListTree(CompactDirectory(crash_)),
            init_lives ? "process_7.recovering.1/\nprocess_7.recovering.1/emergency.bin\n"
                         "process_7.recovering.1/incident.json\n"
                         "process_7.recovering.1/metadata.json\n"
                       : "");
  std::size_t next = 0;
  for (const auto& c : cases) {
    if (*c.kind == '\0') continue;
    ASSERT_LT(next, reports.size());
    const json& report = reports[next++];
    SCOPED_TRACE(report.dump(2));
    EXPECT_EQ(report["kind"], c.kind);
    EXPECT_EQ(report["reason"], c.reason);
    EXPECT_EQ(report["client_report_id"], std::string("compact_") + c.name);
    EXPECT_EQ(report["compact_process_evidence"]["memory_contents_uploaded"], false);
    EXPECT_EQ(report["privacy"]["compact_process_evidence"],
              "module_offsets_and_sanitized_state_only");
    const bool known = report["client_report_id"] == "compact_process_2";
    EXPECT_EQ(report.contains("previous_session_forensics"), known);
    EXPECT_EQ(report["breadcrumbs"].size(), known ? 1u : 0u);
    EXPECT_EQ(report["details"].value("previous_checkpoint", ""), known ? "" : "unavailable");
  }
  EXPECT_EQ(next, reports.size());
}

TEST_F(Recovery, FindsTheCheckpointOfACompactSessionAmongTheSessionFiles) {
  WriteFile(Session("active_1_a.json"), test::LeftSession().dump());
  test::LeaveCompactSession(crash_, "process_1", {{"finalized", true}});
  RecoverCompactEvidence(crash_);
  const json report = ReadJson(PendingReportsDirectory(crash_) / "compact_process_1.json");
  EXPECT_EQ(report["previous_session_forensics"]["checkpoint_sequence"], 4);
  EXPECT_EQ(report["breadcrumbs"][0]["event"], "application_started");
}

TEST_F(Recovery, ReportsADumpOnceAndLeavesIt) {
  const struct {
    const char* name;
    const char* content;
    const char* text_file;
    const char* kind;
    const char* text;
    const char* reason;
  } cases[] = {
      {"qorva_crash_1.dmp", "MDMP", "qorva_crash_1.txt", "crash",
       "Recovered orphan crash dump after startup", "Recovered orphan crash dump after startup"},
      {"qorva_crash_2.dmp", "", "qorva_crash_2.txt", "crash_capture_failed",
       "Crash capture produced an empty orphan dump",
       "Crash capture produced a zero-byte orphan dump"},
      {"qorva_crash_3.dmp.partial", "MD", "qorva_crash_3_capture_failed.txt",
       "crash_capture_failed", "Crash capture was interrupted before the dump was committed",
       "Crash capture left an uncommitted partial dump"},
  };
  for (const auto& c : cases) WriteFile(crash_ / c.name, c.content);
  for (const char* other : {"crash.dmp", "a_crash_b.txt", "seen_crash_1.dmp", "seen_crash_1.txt"}) {
    WriteFile(crash_ / other, "x");
  }
  const std::vector<json> reports = Recover();
  ASSERT_EQ(reports.size(), std::size(cases));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string text = test::ReadFile(crash_ / c.text_file);
    EXPECT_TRUE(text.starts_with("QORVA recovered crash report\ntime_local=")) << text;
    EXPECT_NE(text.find(std::string("\nreason=") + c.text + "\ndump_size_bytes="), text.npos);
    EXPECT_NE(text.find("\n\n=== recent log tail ===\n"), text.npos) << text;
    const auto report = std::find_if(reports.begin(), reports.end(),
                                     [&](const json& r) { return r["reason"] == c.reason; });
    ASSERT_NE(report, reports.end());
    EXPECT_EQ((*report)["kind"], c.kind);
    EXPECT_EQ((*report)["details"]["dump"]["present"], true);
    EXPECT_EQ((*report)["artifacts"]["dump"]["size_bytes"], std::string(c.content).size());
    EXPECT_TRUE(test::Exists(crash_ / c.name));
  }
  EXPECT_EQ(Recover().size(), std::size(cases));
}

}  // namespace
}  // namespace zul
