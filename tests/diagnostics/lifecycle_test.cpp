// The start of diagnostics, and the session of this process with its bounded copy.

#include <stdexcept>

#include "collector/process_life.h"
#include "core/process_environment.h"
#include "diagnostics/session_sanitizer.h"
#include "tests/diagnostics/started_diagnostics.h"

namespace zul {
namespace {

using nlohmann::json;

using Diagnostics = test::StartedDiagnostics;
using Session = test::StartedDiagnostics;

TEST_F(Diagnostics, StartsInFoldersThatItCanWriteTo) {
  const std::string throws = "collector_initialization_failed";
  const struct {
    const char* blocker;  ///< a file in the way of a folder
    const char* logs;
    const char* crashes;
    std::string collector_error;
    const char* warning;
  } cases[] = {
      {"", "app/logs", "data/QORVA/crashes", "collector_executable_missing",
       "unavailable: collector_executable_missing. Process exit cause and stack capture are not "
       "guaranteed."},
      {"app/logs", "data/QORVA/logs", "data/QORVA/crashes", "", ""},
      {"app/logs/.write_probe/x", "data/QORVA/logs", "data/QORVA/crashes", "", ""},
      {"data/QORVA", "app/logs", "app/crashes", throws,
       "unavailable: collector initialization failed."},
  };
  for (const auto& c : cases) {
    const auto number = std::to_string(&c - cases);
    SCOPED_TRACE(number);
    const fs::Path scene = folder_ / number;
    const auto absolute = [&](const char* path) { return (scene / path).make_preferred(); };
    if (*c.blocker != '\0') test::WriteFile(scene / c.blocker, "");
    const auto collector = [&](const fs::Path& crashes, const fs::Path& install) {
      EXPECT_EQ(PathToUtf8(crashes), GetDiagnosticsState().crash_directory);
      EXPECT_EQ(install, scene / "app");
      if (c.collector_error == throws) throw std::runtime_error("no");
      return CollectorStartResult{c.collector_error.empty(), "", c.collector_error};
    };
    const DiagnosticsState state =
        InitDiagnosticsIn({scene / "app" / "x.exe", scene / "data", collector}, {});
    EXPECT_EQ(PathFromUtf8(state.logs_directory), absolute(c.logs));
    EXPECT_EQ(PathFromUtf8(state.crash_directory), absolute(c.crashes));
    EXPECT_EQ(state.compact_collector_error, c.collector_error);
    EXPECT_TRUE(LogHas("Diagnostics initialized: log='" + state.log_file_path + "', crash_dir='" +
                       state.crash_directory + "', install_dir_logging=" +
                       (c.logs == std::string("app/logs") ? "true" : "false")));
    EXPECT_TRUE(LogHas(c.warning));
    EXPECT_FALSE(LogHas("unavailable: ."));
    EXPECT_EQ(test::ListTree(scene).find(".write_probe\n"), std::string::npos);
  }
}

TEST_F(Session, IsAFileUntilACleanEnd) {
  for (int failure = 0; failure < 2; ++failure) StartDiagnosticsSession();
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
  ShutdownDiagnostics();
  EXPECT_FALSE(test::Exists(file));
}

TEST_F(Session, KeepsTheLatestStepsWithoutRepeatsAndWithinBounds) {
  StartDiagnosticsSession();
  for (int i = 0; i < 3; ++i) AddBreadcrumb("same event", {{"job name", "Smith"}, {"", "x"}});
  DiagnosticFields many;
  for (int i = 10; i < 27; ++i) many.emplace_back(std::to_string(i), std::string(255, 'x') + "ž");
  AddBreadcrumb("many", many);
  json steps = SessionBreadcrumbs();
  ASSERT_EQ(steps.size(), 3u);
  EXPECT_EQ(steps[1]["details"].dump(), R"({"diagnostics":"x","job_name":"[redacted-name]"})");
  EXPECT_EQ(steps[2]["details"].size(), 16u);
  EXPECT_EQ(steps[2]["details"]["25"], std::string(255, 'x') + "...");
  for (int i = 0; i < 62; ++i) AddBreadcrumb(std::to_string(i), {});
  EnqueueReport({});
  steps = ReadJson(ListReports(queue_).at(0))["breadcrumbs"];
  ASSERT_EQ(steps.size(), 64u);
  EXPECT_EQ(steps.front()["sequence"], 2);
}

TEST(CompactCheckpoint, IsBoundedAndSanitised) {
  json session = {{"checkpoint_sequence", -3}};
  json details;
  for (int i = 100; i < 190; ++i) details[std::to_string(i)] = std::string(300, 'v');
  details["101"] = "C:\\Users\\me\\art.tif";
  session["runtime_state"] = details;
  for (int i = 0; i < 40; ++i) {
    session["breadcrumbs"].push_back(
        {{"sequence", i}, {"event", "mail me@host.example"}, {"details", details}});
  }
  const json record = BuildCompactCheckpoint(session);
  EXPECT_EQ(record["checkpoint_sequence"], 0);
  EXPECT_EQ(record["runtime_state"].size(), 80u);
  EXPECT_EQ(record["runtime_state"]["101"], "[redacted-path]");
  EXPECT_EQ(record["breadcrumbs"].size(), 32u);
  EXPECT_EQ(record["breadcrumbs"][0]["sequence"], 8);
  EXPECT_EQ(record["breadcrumbs"][0]["event"], "mail [redacted-email]");
  EXPECT_EQ(record["breadcrumbs"][0]["details"].size(), 8u);
  EXPECT_EQ(record["breadcrumbs"][0]["details"]["102"], std::string(128, 'v'));
  EXPECT_EQ(record["omitted_older_breadcrumbs"], 8);
}

}  // namespace
}  // namespace zul
