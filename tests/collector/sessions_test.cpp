// Session folders: their creation and deletion, whose processes have ended, and which are kept.

#include "collector/emergency_record.h"
#include "collector/orphan_sessions.h"
#include "collector/retention.h"
#include "collector/session_directory.h"
#include "core/process_environment.h"
#include "tests/collector/records.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using nlohmann::json;
using test::WriteFile;

constexpr std::uint64_t kNow = 1769862605123;
const ProcessKey kEnded{0xFFFFFFF0, "1"};
const ProcessKey kThisProcess{
    CurrentProcessId(), std::to_string(QueryProcess(CurrentProcessId()).creation_time.value_or(0))};

std::string Numbered(const std::string& prefix, int number) {
  return prefix + std::to_string(1000 + number);
}

class Sessions : public testing::Test {
 protected:
  /// A session as its observed process and, unless that is null, its observer leave it. `changes`
  /// is a merge patch for incident.json: null removes a key.
  fs::Path Add(const std::string& name, const ProcessKey& observed, const ProcessKey* observer,
               const json& changes = json::object()) const {
    fs::Path session = compact_ / name;
    WriteFile(session / "emergency.bin", "");
    json record = BuildBaseRecord(observed, kNow);
    EXPECT_EQ(test::Commit(session / "metadata.json", record), "");
    record.merge_patch(changes);
    EXPECT_EQ(test::Commit(session / "incident.json", record), "");
    if (observer != nullptr) {
      EXPECT_EQ(test::Commit(session / "collector.json", BuildBaseRecord(*observer, kNow)), "");
    }
    return session;
  }

  const test::TempFolder crash_;
  const fs::Path compact_ = CompactDirectory(crash_.path());
};

TEST_F(Sessions, AreDeletedOnlyInTheirPlaceAndWithoutRecursion) {
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

TEST_F(Sessions, AreCreatedUpToABudget) {
  const auto create = [&](std::uint64_t creation_time, std::string_view below = "") {
    fs::Path created;
    std::string reason;
    const bool ok = CreateCompactSession(crash_ / below, kNow, 7, creation_time, &created, &reason);
    return ok ? created.filename().string() : reason;
  };
  EXPECT_EQ(create(0), "process_identity_or_path_invalid");
  EXPECT_EQ(create(5, std::string(4095, 'x')), "process_identity_or_path_invalid");
  EXPECT_EQ(create(5), "process_1769862605123_7_5");
  EXPECT_EQ(create(5), "collector_directory_unavailable");
  for (int i = 0; i < 38; ++i) WriteFile(compact_ / Numbered("process_", i), "a file counts, too");
  EXPECT_EQ(create(6), "process_1769862605123_7_6");
  EXPECT_EQ(create(7), "collector_session_budget_exhausted");
  EXPECT_FALSE(test::Exists(compact_ / "process_1769862605123_7_7"));
  if (!test::MakeLink(crash_.path(), crash_ / "link")) GTEST_SKIP() << "no links";
  EXPECT_EQ(create(8, "link"), "collector_directory_unavailable");
}

TEST_F(Sessions, BelongToOneProcessAndNotToALaterOneWithItsId) {
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
  for (const std::uint64_t pid : {0ull, ~0ull, kThisProcess.pid + (1ull << 32)}) {
    EXPECT_FALSE(IsProcessAlive({pid, ""})) << pid;
  }
}

TEST_F(Sessions, AreOrphansWhenProcessAndObserverHaveEnded) {
  const ProcessKey reused{kThisProcess.pid, "1"};
  const EmergencyRecord crash;
  Add("process_1_done", kEnded, &kEnded, {{"finalized", true}, {"capture_status", "complete"}});
  WriteFile(Add("process_2_crashed", kEnded, &reused) / "emergency.bin",
            {reinterpret_cast<const char*>(&crash), sizeof crash});
  Add("process_3_negative", kEnded, nullptr, {{"finalized", 1}, {"pid", -1}});
  // Not orphans: still observed, still running, hostile records, a link.
  Add("process_4_observed", kEnded, &kThisProcess);
  Add("process_5_running", kThisProcess, &kEnded);
  Add("process_6_pid", kEnded, &kEnded, {{"pid", 1.5}});
  Add("process_7_identity", kEnded, &kEnded, {{"process_identity", 1}});
  Add("process_8_open", kEnded, &kEnded, {{"finalized", nullptr}});
  EXPECT_TRUE(test::MakeLink(compact_ / "process_1_done", compact_ / "process_9_link"));
  std::string orphans;
  for (const OrphanSession& orphan : FinalizeOrphanSessions(crash_.path())) {
    const json& record = orphan.record;
    orphans += orphan.directory.filename().string() + " " +
               test::Fields(record, {"event", "capture_status", "capture_error", "finalized"}) +
               "\n";
  }
  EXPECT_EQ(orphans,
            "process_1_done observer_started complete - true\n"
            "process_2_crashed native_exception incomplete collector_did_not_finalize true\n"
            "process_3_negative observer_started incomplete collector_did_not_finalize true\n");
  for (int i = 0; i < 30; ++i) Add(Numbered("process_d", i), kEnded, nullptr);
  EXPECT_EQ(FinalizeOrphanSessions(crash_.path()).size(), 32u);
}

TEST_F(Sessions, AreKeptWhenTheyAreNewOrMayBeInUse) {
  Add("process_0000_observed", kEnded, &kThisProcess);
  Add("process_0001_running", kThisProcess, &kEnded);
  Add("process_0002_unobserved", kEnded, nullptr);
  for (int i = 0; i < 32; ++i) Add(Numbered("process_", i), kEnded, &kEnded);
  const std::string before = test::ListTree(crash_.path());
  EnforceCompactRetention(crash_.path(), kNow);
  EXPECT_EQ(test::ListTree(crash_.path()), before);
  Add("process_10", kEnded, &kEnded);
  EnforceCompactRetention(crash_.path(), kNow);
  EXPECT_FALSE(test::Exists(compact_ / "process_10"));
  EXPECT_EQ(test::Record(compact_ / "retention.json")["expired_sessions"], 1);
}

TEST_F(Sessions, AreRemovedWhenTheirProcessEndedWithoutAnIncident) {
  const std::string ended = "_4294967280_1";
  const std::string pid = std::to_string(kThisProcess.pid);
  const json no_incident = {{"schema", nullptr}};
  const auto add_all = [&](int number) {
    const auto path = [&](const std::string& name) {
      return compact_ / (Numbered("process_", number) + name);
    };
    std::error_code ec;
    EXPECT_TRUE(fs::CreateDirectories(path("1" + ended), ec));
    WriteFile(path("2" + ended) / "emergency.bin", "");
    WriteFile(path("3" + ended) / "incident.json.partial", "{");
    WriteFile(path("4" + ended) / "incident.json", "");
    const std::string five = Numbered("process_", number) + "5" + ended;
    Add(five + ".recovering.7", kEnded, &kEnded, no_incident);
    fs::Remove(Add(five, kEnded, &kEnded) / "incident.json", ec);
    fs::Remove(Add(five + "0", kEnded, nullptr) / "incident.json", ec);
    WriteFile(path("6_" + pid + "_1") / "emergency.bin", "");  // its id was used again
  };
  for (int number = 0; number < 5; ++number) add_all(number);
  const std::string living = "process_1_" + pid + "_" + kThisProcess.identity;
  WriteFile(compact_ / living / "emergency.bin", "");
  WriteFile(compact_ / "process_2_1" / "emergency.bin", "");
  Add("process_2" + ended, kEnded, nullptr);
  fs::Path created;
  std::string reason;
  EXPECT_FALSE(CreateCompactSession(crash_.path(), kNow, 7, 5, &created, &reason)) << reason;
  EnforceCompactRetention(crash_.path(), kNow);
  EXPECT_EQ(test::ListTree(compact_), living + "/\n" + living + "/emergency.bin\n" +
                                          "process_2_1/\nprocess_2_1/emergency.bin\nprocess_2" +
                                          ended + "/\nprocess_2" + ended +
                                          "/emergency.bin\nprocess_2" + ended +
                                          "/incident.json\nprocess_2" + ended + "/metadata.json\n");
  EXPECT_TRUE(CreateCompactSession(crash_.path(), kNow, 7, 5, &created, &reason)) << reason;
}

TEST_F(Sessions, HaveAtMost32PendingReports) {
  const fs::Path pending = crash_ / "pending_reports";
  for (int i = 0; i < 35; ++i) WriteFile(pending / (Numbered("compact_process_", i) + ".json"), "");
  WriteFile(pending / "compact_process_0.json.partial", "");
  WriteFile(pending / "compact_process_0.json" / "folder", "");
  WriteFile(pending / "qorva_crash_1.json", "");
  WriteFile(compact_ / "x", "");
  for (int pass = 0; pass < 2; ++pass) EnforceQueueRetention(crash_.path(), kNow);
  std::error_code ec;
  EXPECT_EQ(fs::ListDirectory(pending, ec).size(), 35u);
  EXPECT_FALSE(test::Exists(pending / "compact_process_1002.json"));
  EXPECT_EQ(test::Record(compact_ / "queue_retention.json")["expired_pending_reports"], 3);
}

}  // namespace
}  // namespace zul
