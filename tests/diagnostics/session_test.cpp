// The session of this process: what goes into it, when it is written, and on which disk.

#include <gtest/gtest.h>

#include <limits>

#include "collector/evidence_record.h"
#include "core/process_environment.h"
#include "diagnostics/compact_checkpoint.h"
#include "diagnostics/session_state.h"
#include "tests/diagnostics/started_diagnostics.h"
#include "tests/support/file_tricks.h"

namespace zul {
namespace {

using nlohmann::json;
using test::WriteFile;

class Session : public test::StartedDiagnostics {
 protected:
  /// The one file of the session; empty when there is none.
  fs::Path File() const {
    fs::Path found;
    std::error_code ec;
    for (const fs::DirectoryEntry& entry : fs::ListDirectory(SessionStateDirectory(crash_), ec)) {
      EXPECT_TRUE(found.empty()) << entry.path;
      found = entry.path;
    }
    return found;
  }
  json Content() const { return ReadJson(File()); }
};

TEST(SessionPace, IsTwoSecondsForAChangeAndTenForAHeartbeat) {
  constexpr std::uint64_t kEarlier = 5;
  const struct {
    CheckpointPace pace;
    std::uint64_t now_ms;
    std::uint64_t heartbeat;
    bool due;
  } cases[] = {
      {{true, 1000, 0}, 2999, 0, false},   {{true, 1000, 0}, 3000, 0, true},
      {{false, 1000, 0}, 99999, 0, false}, {{false, 1000, 7}, 10999, 8, false},
      {{false, 1000, 7}, 11000, 8, true},  {{true, 1000, 0}, kEarlier, 1, false},
      {{false, 1000, 7}, 11000, 6, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsCheckpointDue(c.pace, c.now_ms, c.heartbeat), c.due) << c.now_ms;
  }
}

TEST_F(Session, IsAFileThatGoesWithACleanEnd) {
  EXPECT_TRUE(WriteSessionCheckpoint(true)) << "without a session there is nothing to write";
  AddBreadcrumb("too_early", {});
  EXPECT_EQ(File(), fs::Path());
  StartSession();
  const fs::Path file = File();
  const std::string pid = std::to_string(CurrentProcessId());
  EXPECT_TRUE(file.filename().string().starts_with("active_" + pid + "_session_20")) << file;
  const json first = Content();
  StartSession();  // a second failure
  EXPECT_EQ(first["checkpoint_sequence"], 1);
  EXPECT_EQ(first["termination_state"], "active");
  EXPECT_EQ(first["pid"], CurrentProcessId());
  EXPECT_EQ(first["process_identity"],
            std::to_string(QueryProcess(CurrentProcessId()).creation_time.value()));
  EXPECT_EQ(first["breadcrumbs"].dump(),
            R"([{"details":{},"event":"application_started","sequence":1,"time_local":)" +
                first["started_at_local"].dump() + "}]");
  EXPECT_EQ(first["app"]["compact_collector_error"], "collector_launch_failed");
  EXPECT_EQ(first["app"]["exe"],
            json({{"present", false}, {"extension", ".exe"}, {"size_bytes", 0}}));
  EXPECT_EQ(first["app"]["log"]["present"], true);
  EXPECT_EQ(first.dump().find(folder_.path().filename().string()), std::string::npos);
  EXPECT_EQ(Content(), first) << "nothing changed";

  AddBreadcrumb("failed", {{"stage", "apply"}});
  EXPECT_TRUE(WriteSessionCheckpoint(false)) << "not due yet";
  EXPECT_EQ(Content(), first);
  std::error_code ec;
  fs::RemoveTree(SessionStateDirectory(crash_), ec);
  EXPECT_TRUE(WriteSessionCheckpoint(true));
  EXPECT_EQ(Content()["checkpoint_sequence"], 2);
  EXPECT_EQ(SessionBreadcrumbs().size(), 2u);
  FinishDiagnosticsSession(std::nullopt);
  EXPECT_EQ(File(), fs::Path());
  EXPECT_EQ(SessionBreadcrumbs().size(), 0u);
}

TEST_F(Session, KeepsTheLatestStepsWithoutRepeatsAndWithinBounds) {
  StartSession();
  for (int i = 0; i < 3; ++i) AddBreadcrumb("same event", {{"job name", "Smith poster"}});
  AddBreadcrumb("", {});
  json steps = SessionBreadcrumbs();
  ASSERT_EQ(steps.size(), 2u);
  EXPECT_EQ(steps[1]["event"], "same_event");
  EXPECT_EQ(steps[1]["details"].dump(), R"({"job_name":"[redacted-name]"})");
  DiagnosticFields many;
  for (int i = 0; i < 17; ++i)
    many.emplace_back("f" + std::to_string(10 + i), std::string(257, 'x'));
  AddBreadcrumb("many", many);
  steps = SessionBreadcrumbs();
  EXPECT_EQ(steps[2]["details"].size(), kBreadcrumbFieldsMax);
  EXPECT_EQ(steps[2]["details"]["f25"], std::string(256, 'x') + "...");
  for (int i = 0; i < 62; ++i) AddBreadcrumb("step", {{"n", std::to_string(i)}});
  steps = SessionBreadcrumbs();
  ASSERT_EQ(steps.size(), kBreadcrumbsMax);
  EXPECT_EQ(steps.front()["sequence"], 2);
  EXPECT_EQ(steps.back()["sequence"], 65);
}

TEST(SessionClocks, NeverCountBackwards) {
  SessionRecord record;
  record.start_ms = 1000;
  record.heartbeat.last_ms = 1000;
  for (const auto& [now_ms, elapsed_ms] : {std::pair{1500u, 500u}, std::pair{999u, 0u}}) {
    const json session = BuildSessionJson(record, {1, now_ms, 0, ""}, json::object());
    EXPECT_EQ(session["process_uptime_ms"], elapsed_ms);
    EXPECT_EQ(session["ui_heartbeat"]["age_ms"], elapsed_ms);
  }
}

TEST(CompactCheckpoint, KeepsLittleOfASessionAndNothingPrivate) {
  json session = {{"schema_name", "qorva.diagnostics.session"},
                  {"pid", 7},
                  {"process_identity", std::string(200, '5')},
                  {"termination_state", "active"},
                  {"app", {{"exe", "C:\\Users\\me\\x.exe"}}},
                  {"checkpoint_sequence", -3},
                  {"host_monotonic_ms", "soon"},
                  {"omitted_older_breadcrumbs", 5000000}};
  for (int i = 0; i < 90; ++i) {
    session["runtime_state"]["key " + std::to_string(100 + i)] = std::string(300, 'v');
  }
  session["runtime_state"]["key 100"] = 5;
  session["runtime_state"]["key 101"] = "C:\\Users\\me\\art.tif";
  for (int i = 0; i < 40; ++i) {
    json details;
    for (int field = 0; field < 10; ++field) details["d" + std::to_string(field)] = "v";
    session["breadcrumbs"].push_back(
        {{"sequence", i}, {"event", "mail me@host.example"}, {"details", details}});
  }
  session["breadcrumbs"][39]["details"] = {{std::string(70, 'k'), std::string(129, 'v')}};
  const json record = BuildCompactCheckpoint(session);
  EXPECT_EQ(record["schema"], kEvidenceSchema);
  EXPECT_EQ(record["process_identity"], std::string(128, '5'));
  EXPECT_EQ(record["checkpoint_sequence"], 0);
  EXPECT_EQ(record["runtime_state"].size(), 80u);
  EXPECT_EQ(record["runtime_state"]["key_101"], "[redacted-path]");
  EXPECT_EQ(record["runtime_state"]["key_102"], std::string(256, 'v') + "...");
  EXPECT_EQ(record["breadcrumbs"].size(), 32u);
  EXPECT_EQ(record["breadcrumbs"][0]["sequence"], 8);
  EXPECT_EQ(record["breadcrumbs"][0]["event"], "mail [redacted-email]");
  EXPECT_EQ(record["breadcrumbs"][0]["details"].size(), 8u);
  EXPECT_EQ(record["breadcrumbs"][31]["details"].dump(),
            json::object({{std::string(64, 'k'), std::string(128, 'v')}}).dump());
  EXPECT_EQ(record["omitted_older_breadcrumbs"], 1000008);
  EXPECT_EQ(record["bounded_fields"], true);
  EXPECT_FALSE(record.contains("app"));
  EXPECT_FALSE(BuildCompactCheckpoint({{"pid", 1}}).contains("bounded_fields"));
  // Such a record can be made of one, and of anything else.
  json again = BuildCompactCheckpoint(record);
  again["bounded_fields"] = true;
  again["omitted_older_breadcrumbs"] = 1000008;
  EXPECT_TRUE(again == record);
  for (const json& odd : {json(), json(1), json::array({1}),
                          json({{"breadcrumbs", {1, {{"details", 2}}}}, {"runtime_state", {1}}})}) {
    EXPECT_LT(BuildCompactCheckpoint(odd).dump().size(), 1000u);
  }
}

TEST_F(Session, KeepsItsLastCheckpointOnAFullDisk) {
  const test::SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  StartIn(volume.path());
  StartSession();
  AddBreadcrumb("before", {});
  ASSERT_TRUE(WriteSessionCheckpoint(true));
  const std::string before = test::ReadFile(File());
  {
    std::error_code ec;
    fs::File filler = fs::CreateTruncatedFile(volume.path() / "filler", ec);
    for (std::size_t piece = 65536; piece > 0;) {
      const std::string bytes(piece, 'x');
      if (!fs::WriteAll(filler, bytes.data(), bytes.size(), ec)) piece /= 2;
    }
  }
  AddBreadcrumb("on_a_full_disk", {});
  EXPECT_FALSE(WriteSessionCheckpoint(true));
  EXPECT_EQ(test::ReadFile(File()), before);
  std::error_code ec;
  ASSERT_TRUE(fs::Remove(volume.path() / "filler", ec));
  EXPECT_TRUE(WriteSessionCheckpoint(true));
  EXPECT_EQ(Content()["breadcrumbs"].size(), 3u);
  FinishDiagnosticsSession("clean_shutdown");
  EXPECT_EQ(File(), fs::Path());
  GetLogger().Configure("", "");
}

TEST_F(Session, WithoutAPlaceToWriteIsLostQuietly) {
  WriteFile(SessionStateDirectory(crash_), "a file where the folder belongs");
  StartSession();
  EXPECT_FALSE(WriteSessionCheckpoint(true));
  const std::string last = GetLogger().RecentLines(1).front();
  EXPECT_TRUE(last.ends_with("Diagnostics upload evidence rewrite open failed: stream open failed"))
      << last;
  FinishDiagnosticsSession("clean_shutdown");
}

}  // namespace
}  // namespace zul
