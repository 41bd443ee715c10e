// The session of this process, and its bounded copy.

#include "collector/process_life.h"
#include "core/process_environment.h"
#include "diagnostics/session_sanitizer.h"
#include "tests/diagnostics/started_diagnostics.h"

namespace zul {
namespace {

using nlohmann::json;

using Session = test::StartedDiagnostics;

TEST_F(Session, IsAFileUntilACleanEnd) {
  StartDiagnosticsSession();
  StartDiagnosticsSession();  // a second failure
  std::error_code ec;
  const auto files = fs::ListDirectory(SessionStateDirectory(crash_), ec);
  ASSERT_EQ(files.size(), 1u);
  const fs::Path file = files[0].path;
  const json first = ReadJson(file);
  EXPECT_EQ(first["process_identity"],
            std::to_string(QueryProcess(CurrentProcessId()).creation_time.value()));
  EXPECT_EQ(first["breadcrumbs"][0]["event"], "application_started");
  EXPECT_EQ(first["app"]["log"]["extension"], ".log");
  EXPECT_EQ(first.dump().find(folder_.path().filename().string()), std::string::npos);
  fs::RemoveTree(SessionStateDirectory(crash_), ec);
  EXPECT_TRUE(WriteSessionCheckpoint());
  EXPECT_EQ(ReadJson(file)["checkpoint_sequence"], 2);
  FinishDiagnosticsSession(std::nullopt);
  EXPECT_FALSE(test::Exists(file));
}

TEST_F(Session, KeepsTheLatestStepsWithoutRepeatsAndWithinBounds) {
  StartDiagnosticsSession();
  for (int i = 0; i < 3; ++i) AddBreadcrumb("same event", {{"job name", "Smith poster"}});
  DiagnosticFields many;
  for (int i = 10; i < 27; ++i) many.emplace_back(std::to_string(i), std::string(257, 'x'));
  AddBreadcrumb("many", many);
  json steps = SessionBreadcrumbs();
  ASSERT_EQ(steps.size(), 3u);
  EXPECT_EQ(steps[1]["details"].dump(), R"({"job_name":"[redacted-name]"})");
  EXPECT_EQ(steps[2]["details"].size(), 16u);
  EXPECT_EQ(steps[2]["details"]["25"], std::string(256, 'x') + "...");
  for (int i = 0; i < 62; ++i) AddBreadcrumb(std::to_string(i), {});
  steps = SessionBreadcrumbs();
  ASSERT_EQ(steps.size(), 64u);
  EXPECT_EQ(steps.front()["sequence"], 2);
}

TEST(CompactCheckpoint, IsBoundedAndSanitised) {
  json session = {{"app", {{"exe", "C:\\Users\\me\\x.exe"}}}, {"checkpoint_sequence", -3}};
  for (int i = 100; i < 190; ++i) {
    session["runtime_state"][std::to_string(i)] = std::string(300, 'v');
  }
  session["runtime_state"]["101"] = "C:\\Users\\me\\art.tif";
  json details;
  for (int i = 0; i < 10; ++i) details[std::to_string(i)] = "v";
  session["breadcrumbs"] = json(40, {{"event", "mail me@host.example"}, {"details", details}});
  const json record = BuildCompactCheckpoint(session);
  EXPECT_EQ(record["checkpoint_sequence"], 0);
  EXPECT_EQ(record["runtime_state"].size(), 80u);
  EXPECT_EQ(record["runtime_state"]["101"], "[redacted-path]");
  EXPECT_EQ(record["runtime_state"]["102"], std::string(256, 'v') + "...");
  EXPECT_EQ(record["breadcrumbs"].size(), 32u);
  EXPECT_EQ(record["breadcrumbs"][0]["event"], "mail [redacted-email]");
  EXPECT_EQ(record["breadcrumbs"][0]["details"].size(), 8u);
  EXPECT_EQ(record["omitted_older_breadcrumbs"], 8);
  EXPECT_FALSE(record.contains("app"));
}

}  // namespace
}  // namespace zul
