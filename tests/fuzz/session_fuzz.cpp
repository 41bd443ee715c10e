// What recovery makes of a session file that an earlier process left.
// Input: the file.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "core/text.h"
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

void RequireNothingPrivate(const json& report) {
  const json flat = report.flatten();
  for (const auto& [pointer, value] : flat.items()) {
    if (!value.is_string()) continue;
    const auto& text = value.get_ref<const std::string&>();
    Require(IsValidUtf8(text), "texts are UTF-8");
    for (const char* root : {"\\\\Server\\", "/home/", "/Users/", "/tmp/", "me@host.example"}) {
      Require(text.find(root) == text.npos, "no path and no address is left");
    }
  }
}

void RequireSoundReport(const json& report) {
  RequireNothingPrivate(report);
  RequireBoundedSteps(report.at("breadcrumbs"), kSessionBreadcrumbs);
  const json& forensics = report.at("previous_session_forensics");
  Require(forensics.at("runtime_state").size() <= 80, "the runtime state is bounded");
  const bool restart = report.at("kind") == "host_restart";
  Require(restart || report.at("kind") == "unexpected_exit", "the kind is one of two");
  Require(restart ==
              (forensics.at("classification") == "recovered_after_host_restart_or_monotonic_reset"),
          "and belongs to the classification");
  Require(report.at("details").at("exit_evidence_class") == forensics.at("classification"),
          "which is stated once");
  Require(report.at("report_text")
              .get_ref<const std::string&>()
              .starts_with("QORVA recovered session report\n"),
          "the text is that of a session");
}

void RequireBoundedCheckpoint(const json& session) {
  const json checkpoint = BuildCompactCheckpoint(session);
  RequireBoundedSteps(checkpoint.at("breadcrumbs"), kCompactBreadcrumbs);
  Require(checkpoint.at("runtime_state").size() <= 80, "the state of a checkpoint is bounded");
  Require(SanitizeAppObject(session).size() <= 10, "an app object has known keys only");
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
    RequireBoundedCheckpoint(session);
  }
  std::error_code ec;
  fs::RemoveTree(PendingReportsDirectory(folder.path()), ec);
  for (const auto& [name, contents] : test::FilesBelow(folder.path())) {
    fs::Remove(folder / name, ec);
  }
}

}  // namespace zul::fuzz
