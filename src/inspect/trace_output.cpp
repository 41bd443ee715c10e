#include "inspect/trace_output.h"

#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "core/process_environment.h"
#include "inspect/trace_verdict.h"

namespace zul {

namespace {

using nlohmann::json;

std::string TimeText(const char* format, std::int64_t seconds) {
  const std::tm utc = UtcCalendarTime(static_cast<std::time_t>(seconds));
  char text[32];
  return {text, std::strftime(text, sizeof text, format, &utc)};
}

std::string_view OutcomeWord(TraceOutcome outcome) {
  switch (outcome) {
    case TraceOutcome::kSucceeded:
      return "succeeded";
    case TraceOutcome::kFailed:
      return "failed";
    case TraceOutcome::kNeverEnded:
      break;
  }
  return "never_ended";
}

Colour ColourOf(TraceOutcome outcome) {
  switch (outcome) {
    case TraceOutcome::kSucceeded:
      return Colour::kGood;
    case TraceOutcome::kFailed:
      return Colour::kBad;
    case TraceOutcome::kNeverEnded:
      break;
  }
  return Colour::kCaution;
}

/// Measured in milliseconds where the updater did so, else in the whole seconds of the trace.
std::string DurationText(const TraceStep& step) {
  char text[32];
  if (step.elapsed_ms) {
    static_cast<void>(
        std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(*step.elapsed_ms) / 1000));
  } else {
    static_cast<void>(std::snprintf(text, sizeof text, "%lld s",
                                    static_cast<long long>(step.ended - step.begun)));
  }
  return text;
}

std::string Capitalized(std::string text) {
  if (!text.empty() && text[0] >= 'a' && text[0] <= 'z') text[0] = static_cast<char>(text[0] - 32);
  return text;
}

std::string_view OriginText(std::string_view origin) {
  if (origin == "primary") return ", primary";
  return origin.empty() ? "" : ", mirror";
}

std::string StepText(const TraceStep& step) {
  std::string text = TimeText("%H:%M:%S", step.begun) + "  ";
  text += Padded(Capitalized(step.name) + std::string(OriginText(step.origin)), 19);
  text += Padded(DurationText(step), 9);
  text += step.outcome == TraceOutcome::kNeverEnded ? "no end" : OutcomeWord(step.outcome);
  if (step.bytes == 0) return text;
  text += "  " + SizeText(step.bytes);
  if (step.elapsed_ms.value_or(0) != 0) {
    text += " at " + SizeText(step.bytes * 1000 / *step.elapsed_ms) + "/s";
  }
  return text;
}

/// The error that ended the run is printed once, as the user saw it.
void PrintStep(const TraceStep& step, const std::optional<TraceFailure>& failure, Paper* paper) {
  paper->Line(StepText(step), ColourOf(step.outcome));
  constexpr std::string_view kIndent = "          ";
  for (const std::string& note : step.notes)
    paper->Line(std::string(kIndent) + note, Colour::kFaint);
  if (step.error.empty() || (failure && failure->error == step.error)) return;
  paper->Line(std::string(kIndent) + step.error);
}

std::string_view RemedyText(Remedy remedy) {
  switch (remedy) {
    case Remedy::kPublisher:
      return "the publisher";
    case Remedy::kMachine:
      return "the user, on this machine";
    case Remedy::kNetwork:
      return "the administrator of this network";
    case Remedy::kProduct:
      break;
  }
  return "the makers of QORVA";
}

std::string ValueOr(const TraceRun& run, std::string_view key, std::string_view otherwise) {
  const auto found = run.request.find(key);
  return found == run.request.end() ? std::string(otherwise) : found->second;
}

json StepJson(const TraceStep& step) {
  json object = {{"name", step.name},
                 {"begun", UtcText(step.begun)},
                 {"seconds", step.ended - step.begun},
                 {"outcome", OutcomeWord(step.outcome)},
                 {"notes", step.notes}};
  if (!step.origin.empty()) object["origin_role"] = step.origin;
  if (step.elapsed_ms) object["elapsed_ms"] = *step.elapsed_ms;
  if (step.bytes != 0) object["bytes"] = step.bytes;
  if (!step.error.empty()) object["error"] = step.error;
  return object;
}

}  // namespace

std::string UtcText(std::int64_t seconds_since_1970) {
  return seconds_since_1970 == 0 ? "unknown time"
                                 : TimeText("%Y-%m-%d %H:%M:%S", seconds_since_1970);
}

void PrintRun(const TraceRun& run, Paper* paper) {
  paper->Heading("Run of " + UtcText(run.begun) + " UTC");
  paper->Row("folder", ValueOr(run, "target_dir", "unknown"));
  paper->Row("package", ValueOr(run, "download_url", "unknown"));
  if (run.handed_over)
    paper->Row("", "handed over to a copy of the updater outside the installation");
  paper->Line("");
  for (const TraceStep& step : run.steps) PrintStep(step, run.failure, paper);
  const TraceVerdict verdict = JudgeRun(run);
  paper->Line("");
  paper->Line(
      verdict.summary + " It took " +
          CountText(static_cast<std::uint64_t>(run.ended - run.begun), "second", "seconds") + ".",
      ColourOf(run.outcome));
  if (const std::string text = UserText(run); !text.empty()) paper->Prose("the user saw", text);
  if (verdict.advice.empty()) return;
  paper->Prose("installation", verdict.installation);
  paper->Prose("what to do", verdict.advice);
  paper->Row("who can", RemedyText(verdict.remedy));
}

void PrintTraceSummary(const TraceReading& reading, Paper* paper) {
  std::uint64_t succeeded = 0;
  for (const TraceRun& run : reading.runs) succeeded += run.outcome == TraceOutcome::kSucceeded;
  paper->Line("");
  paper->Line("The trace has " + CountText(reading.runs.size(), "run", "runs") + ", " +
                  std::to_string(succeeded) + " of them successful.",
              Colour::kFaint);
  if (reading.damaged_lines == 0) return;
  paper->Line(
      CountText(reading.damaged_lines, "line is", "lines are") +
          " not an event and not shown; a process that dies while it writes leaves such a line.",
      Colour::kCaution);
}

json RunJson(const TraceRun& run) {
  json steps = json::array();
  for (const TraceStep& step : run.steps) steps.push_back(StepJson(step));
  json object = {{"begun", UtcText(run.begun)},
                 {"seconds", run.ended - run.begun},
                 {"correlation_id", run.correlation_id},
                 {"handed_over", run.handed_over},
                 {"target_dir", ValueOr(run, "target_dir", "")},
                 {"download_url", ValueOr(run, "download_url", "")},
                 {"fallback_download_url", ValueOr(run, "fallback_download_url", "")},
                 {"last_event", run.last_event},
                 {"outcome", OutcomeWord(run.outcome)},
                 {"steps", steps}};
  const TraceVerdict verdict = JudgeRun(run);
  object["summary"] = verdict.summary;
  if (verdict.advice.empty()) return object;
  object["installation"] = verdict.installation;
  object["advice"] = verdict.advice;
  object["remedy"] = RemedyWord(verdict.remedy);
  object["user_text"] = UserText(run);
  return object;
}

}  // namespace zul
