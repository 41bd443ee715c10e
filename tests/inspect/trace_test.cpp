// The runs that the inspector finds in a trace, and what it says about them.

#include <gtest/gtest.h>

#include "inspect/trace_runs.h"
#include "inspect/trace_verdict.h"
#include "tests/update/update_scene.h"

namespace zul {
namespace {

using test::UpdateScene;

/// How a scene names what a verdict says about the installed files.
std::string InstalledBy(const TraceVerdict& verdict) {
  if (verdict.installation == "The new version is installed.") return "new";
  const bool damaged = verdict.installation.starts_with("It is damaged");
  return damaged ? "neither" : "old";
}

TEST(Trace, GivesTheTextThatTheUserSawAndTheStateOfTheInstallation) {
  const std::pair<const char*, void (*)(UpdateScene & scene)> cases[] = {
      {"download", [](auto& s) { s.primary.status = 404; }},
      {"mirror", [](auto& s) { s.NameMirror().primary.status = s.mirror.status = 503; }},
      {"digest", [](auto& s) { s.request.sha256 = std::string(64, '0'); }},
      {"digest, mirror", [](auto& s) { s.NameMirror().request.sha256 = std::string(64, '0'); }},
      {"archive", [](auto& s) { s.ServeBytes("PK\3\4"); }},
      {"layout", [](auto& s) { s.request.required_payload_files = {"x"}; }},
      {"wait", [](auto& s) { s.wait_error = "Timed out."; }},
      {"rollback", [](auto& s) { s.faults.fail_after_replacements = 1; }},
      {"recovery",
       [](auto& s) {
         s.faults.fail_after_replacements = 2;
         s.faults.fail_first_restore = true;
       }},
      {"self", [](auto& s) { s.RunFromInside().replace_error = "No."; }},
      {"start", [](auto& s) { s.launch_error = "No."; }},
  };
  for (const auto& [what, change] : cases) {
    UpdateScene scene;
    change(scene);
    EXPECT_EQ(scene.Run(), 2) << what;
    const TraceReading reading = ReadTrace(scene.trace.Text());
    ASSERT_EQ(reading.runs.size(), 1u) << what;
    const TraceRun& run = reading.runs.front();
    EXPECT_EQ(run.outcome, TraceOutcome::kFailed) << what;
    EXPECT_EQ(scene.Plain(UserText(run)), scene.report.substr(scene.report.find(": ") + 2)) << what;
    EXPECT_EQ(InstalledBy(JudgeRun(run)), scene.Installed()) << what;
    EXPECT_EQ(JudgeRun(run).summary.find("''"), std::string::npos) << what << ": no step";
  }
}

/// "outcome: step, step" of each run. A step that did not succeed has its outcome.
std::string Outline(const TraceReading& reading) {
  constexpr const char* kWords[] = {"ok", "failed", "open"};
  std::string outline;
  for (const TraceRun& run : reading.runs) {
    outline += run.handed_over ? "handed over, " : "";
    outline += std::string(kWords[static_cast<int>(run.outcome)]) + ":";
    for (const TraceStep& step : run.steps) {
      outline += " " + step.name;
      if (step.outcome != TraceOutcome::kSucceeded) {
        outline += std::string("=") + kWords[static_cast<int>(step.outcome)];
      }
      if (step.bytes != 0) outline += " " + std::to_string(step.bytes);
      outline += ",";
    }
    outline += "\n";
  }
  return outline;
}

/// A line for each "run event key=value" in `events`; a run of "-" writes no id.
std::string Lines(const std::vector<std::string>& events) {
  std::string text;
  int second = 10;
  for (const std::string& event : events) {
    nlohmann::json line = {{"ts", "2026-01-31T12:00:" + std::to_string(second++) + "Z"}};
    std::istringstream words(event);
    std::string run, word;
    words >> run >> word;
    line["stage"] = word;
    if (run != "-") line["correlation_id"] = run;
    while (words >> word) line[word.substr(0, word.find('='))] = word.substr(word.find('=') + 1);
    text += line.dump() + "\n";
  }
  return text;
}

TEST(Trace, IsReadAsRunsAndSteps) {
  const struct {
    const char* what;
    std::vector<std::string> events;
    std::string outline;
  } cases[] = {
      {"a copy takes over",
       {"- relaunch_installed_helper_from_target_root", "- launch_isolated_updater_helper",
        "a updater_run_start", "a restart_start", "a restart_ok"},
       "handed over, ok: restart,\n"},
      {"the copy never begins",
       {"- relaunch_installed_helper_from_target_root",
        "- relaunch_installed_helper_from_target_root", "a updater_run_start"},
       "handed over, open:\nhanded over, open:\n"},
      {"two at once",
       {"a updater_run_start", "a download_start", "b updater_run_start", "b download_start",
        "a download_progress bytes_downloaded=7", "b download_complete bytes_downloaded=9"},
       "open: download=open 7,\nopen: download 9,\n"},
      {"the mirror succeeds",
       {"a updater_run_start", "a download_start", "a download_fail",
        "a download_primary_fail error=x", "a download_start", "a download_complete"},
       "open: download=failed, download,\n"},
      {"the application closes late",
       {"a updater_run_start", "a extract_start", "a extract_ok", "a apply_start"},
       "open: unpack, wait, install=open,\n"},
      {"dies while it rolls back",
       {"a updater_run_start", "a apply_start", "- rollback_start", "- rollback_ok"},
       "open: wait, install=open, roll back,\n"},
      {"the beginning is cut off", {"a restart_start", "a restart_ok"}, "ok: restart,\n"},
      {"an event of a later version", {"a updater_run_start", "a teleport_start"}, "open:\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(Outline(ReadTrace(Lines(c.events))), c.outline) << c.what;
  const TraceReading damaged =
      ReadTrace("\n{}\n[1]\nPK\3\n{\"stage\":1}\n" + Lines({"a restart_ok"}) + "{\"st");
  EXPECT_EQ(damaged.damaged_lines, 5u);
  EXPECT_EQ(damaged.events, 1u);
}

TEST(Verdict, SaysWhoCanHelp) {
  const std::pair<const char*, std::string_view> cases[] = {
      {"a extract_fail error=unsafe ZIP entry path", "publisher"},
      {"a download_primary_fail error=WinHttpReadData", "network"},
      {"a apply_fail error=reason=external_process_lock,", "machine"},
      {"a apply_fail error=code=112,", "machine"},
      {"a apply_fail error=Staged update binary is not signed by a trusted publisher: 'a.dll'",
       "publisher"},
      {"a apply_fail error=unheard-of", "product"},
  };
  for (const auto& [event, remedy] : cases) {
    TraceReading reading = ReadTrace(Lines({event}));
    reading.runs[0].failure->error =
        std::string(event).substr(std::string(event).find("error=") + 6);
    EXPECT_EQ(RemedyWord(JudgeRun(reading.runs[0]).remedy), remedy) << event;
  }
}

}  // namespace
}  // namespace zul
