// Session folders: names, deletion, what counts as over, and what is kept.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "collector/emergency_record.h"
#include "collector/evidence_record.h"
#include "collector/incident.h"
#include "collector/orphan_sessions.h"
#include "collector/retention.h"
#include "collector/session_directory.h"
#include "core/process_environment.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;
using test::WriteFile;

constexpr std::uint64_t kNow = 1769862605123;
const ProcessKey kDead{0xFFFFFFF0, "1"};
const ProcessKey kMyself{
    CurrentProcessId(), std::to_string(QueryProcess(CurrentProcessId()).creation_time.value_or(0))};

/// The record of a crash, as its file.
const std::string kCrash = [] {
  const EmergencyRecord crash;
  return std::string(reinterpret_cast<const char*>(&crash), sizeof crash);
}();

std::string Numbered(const std::string& prefix, int number) {
  return prefix + std::to_string(1000 + number);
}

class Sessions : public testing::Test {
 protected:
  /// A session as its observed process and, if there is one, its observer leave it.
  fs::Path Add(const std::string& name, const ProcessKey& observed, const ProcessKey* observer,
               const json& changes = json::object()) const {
    fs::Path session = compact_ / name;
    WriteFile(session / "emergency.bin", "");
    json record = BuildBaseRecord(observed, kNow);
    EXPECT_TRUE(CommitEvidenceRecord(session / "metadata.json", record, nullptr));
    record.update(changes);
    EXPECT_TRUE(CommitEvidenceRecord(session / "incident.json", record, nullptr));
    if (observer == nullptr) return session;
    EXPECT_TRUE(CommitEvidenceRecord(session / "collector.json", BuildBaseRecord(*observer, kNow),
                                     nullptr));
    return session;
  }

  const test::TempFolder crash_;
  const fs::Path compact_ = CompactDirectory(crash_.path());
};

TEST_F(Sessions, AreDeletedOnlyAsAWholeAndInTheirPlace) {
  const std::string longest = "process_" + std::string(88, '1');
  for (const std::string& name : {std::string("process_Z.-"), longest}) {
    for (const std::string_view file : kSessionFiles) WriteFile(compact_ / name / file, "x");
    EXPECT_TRUE(DeleteCompactSession(compact_ / name)) << name;
  }
  for (const fs::Path& other : {crash_ / "process_1", compact_ / "Process_1", compact_ / "process",
                                compact_ / (longest + "1"), compact_ / "process_ 1"}) {
    WriteFile(other / "hang.json", "x");
    EXPECT_FALSE(DeleteCompactSession(other)) << other;
    EXPECT_TRUE(test::Exists(other / "hang.json")) << other;
  }
  WriteFile(compact_ / "process_1" / "notes.txt", "x");
  WriteFile(compact_ / "process_1" / "incident.json", "x");
  EXPECT_FALSE(DeleteCompactSession(compact_ / "process_1"));
  EXPECT_EQ(test::ListTree(compact_ / "process_1"), "notes.txt\n");
  if (!test::MakeLink(crash_ / "process_1", compact_ / "process_link")) GTEST_SKIP() << "no links";
  EXPECT_FALSE(DeleteCompactSession(compact_ / "process_link"));
  EXPECT_TRUE(test::Exists(crash_ / "process_1/hang.json"));
}

TEST_F(Sessions, AreMadeUpToABudget) {
  const auto create = [&](std::uint64_t creation_time) {
    fs::Path made;
    std::string reason;
    const bool ok = CreateCompactSession(crash_.path(), kNow, 7, creation_time, &made, &reason);
    return ok ? made.filename().string() : reason;
  };
  EXPECT_EQ(create(0), "process_identity_or_path_invalid");
  EXPECT_EQ(create(5), "process_1769862605123_7_5");
  for (int i = 0; i < 38; ++i) WriteFile(compact_ / Numbered("process_", i), "a file counts, too");
  EXPECT_EQ(create(6), "process_1769862605123_7_6");
  EXPECT_EQ(create(7), "collector_session_budget_exhausted");
  EXPECT_FALSE(test::Exists(compact_ / "process_1769862605123_7_7"));
}

TEST_F(Sessions, BelongToAProcessAndNotToALaterOneOfItsId) {
  using enum ProcessFacts::Opened;
  const struct {
    const char* identity;
    ProcessFacts facts;
    bool alive;
  } cases[] = {
      {"5", {kNo, false, {}}, false}, {"5", {kDenied, false, {}}, true},
      {"5", {kYes, true, 5}, true},   {"5", {kYes, true, 6}, false},
      {"5", {kYes, false, 5}, false}, {"5", {kYes, true, {}}, true},
      {"", {kYes, true, 6}, true},    {"05", {kYes, true, 5}, false},
  };
  for (const auto& c : cases) EXPECT_EQ(IsSameLivingProcess({7, c.identity}, c.facts), c.alive);
  for (const std::uint64_t pid : {0ull, ~0ull, kMyself.pid + (1ull << 32)}) {
    EXPECT_FALSE(IsProcessAlive({pid, ""})) << pid;
  }
}

TEST_F(Sessions, AreOrphansWhenNobodyWritesThemAnyMore) {
  const ProcessKey recycled{kMyself.pid, "1"};
  Add("process_1_done", kDead, &kDead, {{"finalized", true}, {"capture_status", "complete"}});
  WriteFile(Add("process_2_crashed", kDead, &recycled) / "emergency.bin", kCrash);
  Add("process_3_negative", kDead, nullptr, {{"finalized", 1}, {"pid", -1}});
  // Not these: still observed, still running, hostile records, no sessions.
  Add("process_4_observed", kDead, &kMyself);
  Add("process_5_running", kMyself, &kDead);
  Add("process_6_pid", kDead, &kDead, {{"pid", 1.5}});
  Add("process_7_identity", kDead, &kDead, {{"process_identity", 1}});
  EXPECT_TRUE(test::MakeLink(compact_ / "process_1_done", compact_ / "process_9_link"));
  std::string story;
  for (const OrphanSession& orphan : FinalizeOrphanSessions(crash_.path())) {
    story += orphan.directory.filename().string();
    for (const char* key : {"event", "capture_status", "capture_error"}) {
      story += " " + orphan.record.value(key, "-");
    }
    story += orphan.record["finalized"] == true ? "\n" : " open\n";
  }
  EXPECT_EQ(story,
            "process_1_done observer_started complete -\n"
            "process_2_crashed native_exception incomplete collector_did_not_finalize\n"
            "process_3_negative observer_started incomplete collector_did_not_finalize\n");
  for (int i = 0; i < 30; ++i) Add(Numbered("process_d", i), kDead, nullptr);
  EXPECT_EQ(FinalizeOrphanSessions(crash_.path()).size(), 32u);
}

TEST_F(Sessions, TellOfACrashThatTheObserverDidNotSee) {
  for (const std::string& file : {kCrash, kCrash.substr(1)}) {
    const fs::Path session = Add("process_1", kDead, nullptr);
    WriteFile(session / "emergency.bin", file);
    json record = BuildBaseRecord(kDead, kNow);
    FinishIncident({{5, 6, 0}, std::nullopt, false}, session, &record);
    const bool seen = file == kCrash;
    EXPECT_EQ(record["event"], seen ? "native_exception" : "process_exit_cause_unclassified");
    EXPECT_EQ(record["capture_status"], seen ? "partial" : "exit_status_only");
    EXPECT_EQ(record.value("capture_error", ""), seen ? "process_exited_before_stack_capture" : "");
    EXPECT_FALSE(record["exit_code_known"]);
  }
}

TEST_F(Sessions, AreKeptWhenTheyAreNewOrMayBeInUse) {
  Add("process_0000_observed", kDead, &kMyself);
  Add("process_0001_running", kMyself, &kDead);
  Add("process_0002_unobserved", kDead, nullptr);
  for (int i = 0; i < 32; ++i) Add(Numbered("process_", i), kDead, &kDead);
  const std::string before = test::ListTree(crash_.path());
  EnforceCompactRetention(crash_.path(), kNow);
  EXPECT_EQ(test::ListTree(crash_.path()), before);
  Add("process_10", kDead, &kDead);
  EnforceCompactRetention(crash_.path(), kNow);
  EXPECT_FALSE(test::Exists(compact_ / "process_10"));
  EXPECT_EQ(json::parse(test::ReadFile(compact_ / "retention.json"))["expired_sessions"], 1);

  const fs::Path pending = crash_ / "pending_reports";
  for (int i = 0; i < 35; ++i) WriteFile(pending / (Numbered("compact_process_", i) + ".json"), "");
  WriteFile(pending / "compact_process_0.json.partial", "");
  WriteFile(pending / "qorva_crash_1.json", "");
  for (int pass = 0; pass < 2; ++pass) EnforceQueueRetention(crash_.path(), kNow);
  std::error_code ec;
  EXPECT_EQ(fs::ListDirectory(pending, ec).size(), 34u);
  EXPECT_FALSE(test::Exists(pending / "compact_process_1002.json"));
  const json told = json::parse(test::ReadFile(compact_ / "queue_retention.json"));
  EXPECT_EQ(told["expired_pending_reports"], 3);
}

}  // namespace
}  // namespace zul
