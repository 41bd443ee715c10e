// Session folders: names, deletion, what counts as over, and what is kept.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "collector/emergency_record.h"
#include "collector/evidence_record.h"
#include "collector/orphan_sessions.h"
#include "collector/retention.h"
#include "collector/session_directory.h"
#include "core/logger.h"
#include "core/process_environment.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;
using test::WriteFile;

constexpr std::uint64_t kNow = 1769862605123;
const ProcessKey kDead{0xFFFFFFF0, "1"};

ProcessKey Myself() {
  const std::uint32_t pid = CurrentProcessId();
  return {pid, std::to_string(QueryProcess(pid).creation_time.value_or(0))};
}

std::string Numbered(const std::string& prefix, int number) {
  return prefix + std::to_string(1000 + number);
}

class Sessions : public testing::Test {
 protected:
  fs::Path Session(const std::string& name) const { return compact_ / name; }
  /// A session as its observed process and, if there is one, its observer leave it.
  fs::Path Add(const std::string& name, const ProcessKey& observed, const ProcessKey* observer,
               const json& changes = json::object()) const {
    WriteFile(Session(name) / "emergency.bin", "");
    json record = BuildBaseRecord(observed, kNow);
    EXPECT_TRUE(CommitEvidenceRecord(Session(name) / "metadata.json", record, nullptr));
    record.update(changes);
    EXPECT_TRUE(CommitEvidenceRecord(Session(name) / "incident.json", record, nullptr));
    if (observer != nullptr) {
      record = BuildBaseRecord(*observer, kNow);
      EXPECT_TRUE(CommitEvidenceRecord(Session(name) / "collector.json", record, nullptr));
    }
    return Session(name);
  }

  const test::TempFolder crash_;
  const fs::Path compact_ = CompactDirectory(crash_.path());
  const ProcessKey living_ = Myself();
};

TEST_F(Sessions, AreDeletedOnlyAsAWholeAndInTheirPlace) {
  const std::string longest = "process_" + std::string(88, '1');
  for (const std::string& name : {std::string("process_"), std::string("process_Z.-"), longest}) {
    for (const std::string_view file : kSessionFiles) WriteFile(Session(name) / file, "x");
    EXPECT_TRUE(DeleteCompactSession(Session(name))) << name;
    EXPECT_FALSE(DeleteCompactSession(Session(name))) << name;
  }
  std::vector<fs::Path> others = {crash_ / "process_1", Session("process_1") / ""};
  for (const std::string& name : {std::string("process"), std::string("Process_1"), longest + "1",
                                  std::string("process_ 1"), std::string("process_ž")}) {
    others.push_back(compact_ / std::u8string(name.begin(), name.end()));
  }
  for (const fs::Path& other : others) {
    WriteFile(other / "hang.json", "x");
    EXPECT_FALSE(DeleteCompactSession(other)) << other;
    EXPECT_TRUE(test::Exists(other / "hang.json")) << other;
  }
  WriteFile(Session("process_1") / "notes.txt", "x");
  WriteFile(Session("process_1") / "incident.json/inner", "x");
  EXPECT_FALSE(DeleteCompactSession(Session("process_1")));
  EXPECT_EQ(test::ListTree(Session("process_1")),
            "incident.json/\nincident.json/inner\nnotes.txt\n");
  if (!test::MakeLink(crash_ / "process_1", Session("process_link"))) GTEST_SKIP() << "no links";
  EXPECT_FALSE(DeleteCompactSession(Session("process_link")));
  EXPECT_TRUE(test::Exists(crash_ / "process_1/hang.json"));
}

TEST_F(Sessions, AreMadeUpToABudget) {
  const auto create = [&](const fs::Path& crash, std::uint64_t creation_time) {
    fs::Path made;
    std::string reason;
    const bool ok = CreateCompactSession(crash, kNow, 7, creation_time, &made, &reason);
    return ok ? made.lexically_relative(crash).generic_string() : reason;
  };
  const fs::Path crash = crash_ / "sub";
  const fs::Path all = CompactDirectory(crash);
  EXPECT_EQ(create(crash, 0), "process_identity_or_path_invalid");
  EXPECT_EQ(create(crash / std::string(4096, 'x'), 5), "process_identity_or_path_invalid");
  EXPECT_FALSE(test::Exists(crash));
  EXPECT_EQ(create(crash, 5), "compact_process/process_1769862605123_7_5");
  EXPECT_EQ(create(crash, 5), "collector_directory_unavailable");
  for (int i = 0; i < 38; ++i) WriteFile(all / Numbered("process_", i), "a file counts, too");
  WriteFile(all / "Process_1" / "hang.json", "");
  EXPECT_EQ(create(crash, 6), "compact_process/process_1769862605123_7_6");
  EXPECT_EQ(create(crash, 7), "collector_session_budget_exhausted");
  EXPECT_FALSE(test::Exists(all / "process_1769862605123_7_7"));
  if (!test::MakeLink(all, crash_ / "compact_process")) GTEST_SKIP() << "no links";
  EXPECT_EQ(create(crash_.path(), 8), "collector_directory_unavailable");
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
  EXPECT_TRUE(IsProcessAlive(living_));
  EXPECT_FALSE(IsProcessAlive({living_.pid, living_.identity + "0"}));
  for (const std::uint64_t pid : {0ull, 0xFFFFFFF0ull, ~0ull, living_.pid + (1ull << 32)}) {
    EXPECT_FALSE(IsProcessAlive({pid, ""})) << pid;
  }
}

TEST_F(Sessions, AreOrphansWhenNobodyWritesThemAnyMore) {
  const ProcessKey recycled{living_.pid, "1"};
  Add("process_1_done", kDead, &kDead, {{"finalized", true}, {"capture_status", "complete"}});
  const EmergencyRecord emergency;
  const std::string bytes(reinterpret_cast<const char*>(&emergency), sizeof emergency);
  WriteFile(Add("process_2_crashed", kDead, &recycled) / "emergency.bin", bytes);
  Add("process_3_negative", kDead, nullptr, {{"finalized", 1}, {"pid", -1}});
  WriteFile(Add("process_4_odd_observer", recycled, nullptr) / "collector.json", "{}");
  // Not these: still observed, still running, hostile records, no sessions.
  Add("process_5_observed", kDead, &living_);
  Add("process_6_running", living_, &kDead);
  Add("process_7_pid", kDead, &kDead, {{"pid", "x"}});
  Add("process_8_pid", kDead, &kDead, {{"pid", 1.5}});
  Add("process_9_identity", kDead, &kDead, {{"process_identity", 1}});
  WriteFile(Session("process_a_garbage") / "incident.json", "{}");
  WriteFile(Session("process_b_file"), "x");
  Add("session_1", kDead, &kDead);
  EXPECT_TRUE(test::MakeLink(Session("process_1_done"), Session("process_c_link")));
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
            "process_3_negative observer_started incomplete collector_did_not_finalize\n"
            "process_4_odd_observer observer_started incomplete collector_did_not_finalize\n");
  for (int i = 0; i < 30; ++i) Add(Numbered("process_d", i), kDead, nullptr);
  EXPECT_EQ(FinalizeOrphanSessions(crash_.path()).size(), kOrphanSessionsMax);
}

TEST_F(Sessions, AreKeptWhenTheyAreNewOrMayBeInUse) {
  Add("process_0000_observed", kDead, &living_);
  Add("process_0001_running", living_, &kDead);
  Add("process_0002_unobserved", kDead, nullptr);
  for (int i = 0; i < 32; ++i) Add(Numbered("process_", i), kDead, &kDead);
  const std::string before = test::ListTree(crash_.path());
  EnforceCompactRetention(crash_.path(), kNow);
  EXPECT_EQ(test::ListTree(crash_.path()), before);
  Add("process_10", kDead, &kDead);
  WriteFile(Add("process_1", kDead, &kDead) / "unknown", "");
  EnforceCompactRetention(crash_.path(), kNow);
  EXPECT_EQ(test::ListTree(Session("process_1")), "unknown\n");
  EXPECT_FALSE(test::Exists(Session("process_10")));
  std::error_code ec;
  EXPECT_EQ(ListCompactSessions(crash_.path(), ec).size(), 36u);
  EXPECT_EQ(json::parse(test::ReadFile(compact_ / "retention.json")),
            (json{{"schema", kEvidenceSchema},
                  {"event", "old_completed_evidence_expired"},
                  {"expired_sessions", 1},
                  {"observed_at_unix_ms", kNow},
                  {"kept_sessions", 32}}));
}

TEST_F(Sessions, LeaveABoundedQueueOfReports) {
  const fs::Path pending = crash_ / "pending_reports";
  std::error_code ec;
  ASSERT_TRUE(fs::CreateDirectories(compact_, ec));
  for (int i = 0; i < 35; ++i) WriteFile(pending / (Numbered("compact_process_", i) + ".json"), "");
  WriteFile(pending / "compact_process_0.json.partial", "");
  WriteFile(pending / "qorva_crash_1.json", "");
  for (int pass = 0; pass < 2; ++pass) EnforceQueueRetention(crash_.path(), kNow);
  EXPECT_EQ(fs::ListDirectory(pending, ec).size(), 34u);
  EXPECT_FALSE(test::Exists(pending / "compact_process_1002.json"));
  EXPECT_EQ(json::parse(test::ReadFile(compact_ / "queue_retention.json")),
            (json{{"schema", kEvidenceSchema},
                  {"expired_pending_reports", 3},
                  {"observed_at_unix_ms", kNow},
                  {"kept_reports", 32}}));
  EXPECT_EQ(GetLogger().RecentLines(1).at(0).substr(9),
            "[INFO ] [diagnostics] Compact diagnostics retention expired 3 oldest pending "
            "report(s); most recent 32 retained. No manual or legacy report was removed.");
}

}  // namespace
}  // namespace zul
