// What recovery makes of a session file that an earlier process left.
// Input: the file.

#include <nlohmann/json.hpp>
#include <string>

#include "diagnostics/recovered_session.h"
#include "diagnostics/recovery.h"
#include "diagnostics/report_files.h"
#include "diagnostics/session_checkpoint.h"
#include "diagnostics/session_sanitizer.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/temp_folder.h"

namespace zul::fuzz {

namespace {

using nlohmann::json;

ReportFacts FactsOf(const ReportRequest& request) {
  return {.created_at_local = "now",
          .app = json::object(),
          .breadcrumbs = json::array(),
          .artifacts = json::object(),
          .report_file_text = ReadReportText(request.report_file)};
}

void RequireBoundedSteps(const json& steps, const BreadcrumbLimits& limits) {
  Require(steps.size() <= limits.count, "the number of steps is bounded");
  for (const json& step : steps) {
    Require(step.at("details").size() <= limits.fields, "and the number of their details");
    for (const auto& [key, value] : step.at("details").items()) {
      Require(key.size() <= limits.key_bytes, "and the length of a key");
      Require(value.get_ref<const std::string&>().size() <= limits.value_bytes, "and of a value");
    }
  }
}

void RequireSoundReport(const json& report) {
  const std::string text = report.dump();  // throws for a text that is not UTF-8
  for (const char* root : {R"(\\\\Server\\)", "/home/", "/Users/", "/tmp/", "me@host.example"}) {
    Require(text.find(root) == text.npos, "no path and no address is left");
  }
  RequireBoundedSteps(report.at("breadcrumbs"), kSessionBreadcrumbs);
  const json& forensics = report.at("previous_session_forensics");
  Require(forensics.at("runtime_state").size() <= 80, "the runtime state is bounded");
  const std::string end = forensics.at("classification");
  Require(report.at("details").at("exit_evidence_class") == end, "the end is stated once");
  const bool restart = end == "recovered_after_host_restart_or_monotonic_reset";
  Require(report.at("kind") == (restart ? "host_restart" : "unexpected_exit"), "with its kind");
}

}  // namespace

void Run(std::string_view input) {
  static const test::TempFolder folder;
  const fs::Path sessions = SessionStateDirectory(folder.path());
  const fs::Path file = sessions / "active_1_a.json";
  test::WriteFile(file, input);
  const std::size_t reported = RecoverSessions(
      {.crash_directory = folder.path(), .facts = FactsOf, .log_tail = [] { return LogTail{}; }});
  const std::vector<fs::Path> reports = ListReports(PendingReportsDirectory(folder.path()));
  const test::Files left = test::FilesBelow(sessions);
  Require(reports.size() == reported, "each report that was counted is in the queue");
  Require(reported + left.size() <= 1, "a session is reported or left");
  for (const fs::Path& report : reports) RequireSoundReport(json::parse(test::ReadFile(report)));
  const json session = json::parse(input, nullptr, false);
  if (left.contains("active_1_a.json.invalid")) {
    Require(left.begin()->second == input, "what is no session is kept as it is");
  } else {
    Require(session.is_object(), "only an object is a session");
    RequireBoundedSteps(BuildCompactCheckpoint(session).at("breadcrumbs"), kCompactBreadcrumbs);
    Require(SanitizeAppObject(session).size() <= 10, "an app object has known keys only");
  }
  std::error_code ec;
  fs::RemoveTree(PendingReportsDirectory(folder.path()), ec);
  for (const auto& [name, contents] : test::FilesBelow(folder.path())) {
    fs::Remove(folder / name, ec);
  }
}

}  // namespace zul::fuzz
