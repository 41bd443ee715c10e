#include "inspect/trace_runs.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "collector/evidence_record.h"

namespace zul {

namespace {

/// What an event does to its run.
enum class Act {
  kHandOver,  ///< the next run is that of a copy outside the installation
  kStartRun,
  kBegin,     ///< a step begins
  kMeasure,   ///< the step goes on, with the number of bytes so far
  kEnd,       ///< the step has succeeded
  kFailStep,  ///< the step has failed; another event says what becomes of the run
  kFailRun,   ///< the step has failed, and with it the run unless another step begins
  kVerify,    ///< the field `phase` says which of these
  kNote,      ///< a remark about the step
  kNothing,
};

struct EventRule {
  std::string_view event;
  Act act;
  std::string_view step;
  std::string_view note = {};  ///< with the names of fields in braces
};

constexpr std::array kRules = std::to_array<EventRule>({
    {"relaunch_installed_helper_from_target_root", Act::kHandOver, ""},
    {"launch_isolated_updater_helper", Act::kNothing, ""},
    {"updater_run_claim_fail", Act::kFailRun, "claim"},
    {"updater_run_claim_warning", Act::kNothing, ""},
    {"updater_run_start", Act::kStartRun, ""},
    {"download_start", Act::kBegin, "download"},
    {"download_redirect_resolution", Act::kNote, "download", "from {effective_url}"},
    {"download_progress", Act::kMeasure, "download"},
    {"download_complete", Act::kEnd, "download"},
    {"download_fail", Act::kFailStep, "download"},
    {"download_primary_fail", Act::kFailRun, "download"},
    {"download_fallback_fail", Act::kFailRun, "download"},
    {"download_fallback_ok", Act::kNothing, ""},
    {"download_selected", Act::kNothing, ""},
    {"checksum_verify", Act::kVerify, "verify"},
    {"checksum_primary_fail", Act::kNothing, ""},
    {"extract_start", Act::kBegin, "unpack"},
    {"extract_ok", Act::kEnd, "unpack"},
    {"extract_fail", Act::kFailRun, "unpack"},
    {"apply_wait_main_process_fail", Act::kFailRun, "wait"},
    {"apply_start", Act::kBegin, "install"},
    {"apply_request_close_locking_zul_process", Act::kNote, "install",
     "asked to close, because it uses {target}: {owners}"},
    {"apply_force_close_locking_zul_process", Act::kNote, "install",
     "the user pressed Force close; {terminated} ended of: {owners}"},
    {"payload_binary_signature_validate", Act::kNote, "install",
     "{checked_pe_files} programs and libraries have trusted signatures"},
    {"retired_install_executable_removed", Act::kNote, "install", "removed the retired {path}"},
    {"apply_ok", Act::kEnd, "install"},
    {"apply_fail", Act::kFailRun, "install"},
    {"apply_recovery_required", Act::kFailRun, "install"},
    {"rollback_start", Act::kBegin, "roll back"},
    {"rollback_ok", Act::kEnd, "roll back"},
    {"rollback_recovery_required", Act::kFailStep, "roll back"},
    {"deferred_self_replace_warning", Act::kNote, "install",
     "the updater's own file is in use; the system replaces it at its next start"},
    {"restart_start", Act::kBegin, "restart"},
    {"restart_ok", Act::kEnd, "restart"},
    {"restart_fail", Act::kFailRun, "restart"},
});

const EventRule* FindRule(std::string_view event) {
  const auto* const rule = std::find_if(
      kRules.begin(), kRules.end(), [event](const EventRule& row) { return row.event == event; });
  return rule == kRules.end() ? nullptr : rule;
}

/// Seconds since 1970 of "2026-01-31T12:30:05Z"; 0 for another form.
std::int64_t SecondsOf(std::string_view text) {
  using namespace std::chrono;
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  const std::string copy(text);
  if (std::sscanf(copy.c_str(), "%4d-%2d-%2dT%2d:%2d:%2dZ", &y, &mo, &d, &h, &mi, &s) != 6) {
    return 0;
  }
  const year_month_day date{year(y), month(static_cast<unsigned>(mo)),
                            day(static_cast<unsigned>(d))};
  if (!date.ok()) return 0;
  const auto time = sys_days(date).time_since_epoch() + hours(h) + minutes(mi) + seconds(s);
  return duration_cast<seconds>(time).count();
}

std::uint64_t NumberOf(std::string_view text) {
  std::uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

/// The template with the value of a field for each name in braces.
std::string Expanded(std::string_view text, const TraceEvent& event) {
  std::string expanded;
  for (std::size_t open = text.find('{'); open != std::string_view::npos; open = text.find('{')) {
    const std::size_t close = text.find('}', open);
    expanded.append(text.substr(0, open))
        .append(event.Field(text.substr(open + 1, close - open - 1)));
    text.remove_prefix(close + 1);
  }
  return expanded.append(text);
}

/// Puts runs together, one event after the other.
class RunReader {
 public:
  explicit RunReader(std::vector<TraceRun>* runs) : runs_(*runs) {}

  void Take(const TraceEvent& event) {
    const EventRule* const rule = FindRule(event.name);
    const Act act = rule != nullptr ? rule->act : Act::kNothing;
    if (act == Act::kHandOver || act == Act::kStartRun) {
      StartRun(event, act == Act::kHandOver);
    } else if (TraceRun* const run = RunOf(event)) {
      if (rule != nullptr) Apply(act, *rule, event, run);
      run->ended = std::max(run->ended, event.time);
      run->last_event = event.name;
    }
  }

 private:
  /// The run of a process has an id; events that belong to no action have none and go to the newest
  /// run. A trace that begins in the middle of a run gives a run without a start.
  TraceRun* RunOf(const TraceEvent& event) {
    const std::string_view id = event.Field("correlation_id");
    for (auto run = runs_.rbegin(); run != runs_.rend(); ++run) {
      if (id.empty() || run->correlation_id == id) return &*run;
    }
    StartRun(event, false);
    return &runs_.back();
  }

  /// A run that was handed over begins with the process that hands over. A run may have written a
  /// warning before its start.
  void StartRun(const TraceEvent& event, bool hands_over) {
    const std::string_view id = event.Field("correlation_id");
    const bool continues = !hands_over && !runs_.empty() &&
                           (runs_.back().correlation_id == id ||
                            (runs_.back().handed_over && runs_.back().correlation_id.empty()));
    if (!continues) runs_.emplace_back().begun = event.time;
    TraceRun& run = runs_.back();
    run.handed_over = hands_over || run.handed_over;
    run.correlation_id = id;
    run.request = event.fields;
    run.ended = event.time;
    run.last_event = event.name;
  }

  static void Apply(Act act, const EventRule& rule, const TraceEvent& event, TraceRun* run) {
    switch (act) {
      case Act::kBegin:
        return Begin(rule.step, event, run);
      case Act::kMeasure:
        return Measure(event, &StepNamed(rule.step, run));
      case Act::kEnd:
        return End(rule.step, TraceOutcome::kSucceeded, event, run);
      case Act::kFailStep:
        return End(rule.step, TraceOutcome::kFailed, event, run);
      case Act::kFailRun:
        return FailRun(rule.step, event, run);
      case Act::kVerify:
        return Verify(rule, event, run);
      case Act::kNote:
        return StepNamed(rule.step, run).notes.push_back(Expanded(rule.note, event));
      default:
        return;
    }
  }

  static void Verify(const EventRule& rule, const TraceEvent& event, TraceRun* run) {
    const std::string_view phase = event.Field("phase");
    Apply(phase == "start" ? Act::kBegin
          : phase == "ok"  ? Act::kEnd
                           : Act::kFailRun,
          rule, event, run);
  }

  static void Begin(std::string_view name, const TraceEvent& event, TraceRun* run) {
    run->failure.reset();  // the run has gone on
    if (name == "install" && event.time > run->ended) {
      TraceStep& wait = StepNamed("wait", run);
      wait.outcome = TraceOutcome::kSucceeded;
      wait.ended = event.time;
    }
    TraceStep& step = run->steps.emplace_back();
    step.name = name;
    step.origin = event.Field("origin_role");
    step.begun = step.ended = event.time;
  }

  /// The last step of this name; a new one when the trace has none.
  static TraceStep& StepNamed(std::string_view name, TraceRun* run) {
    const auto found = std::find_if(run->steps.rbegin(), run->steps.rend(),
                                    [name](const TraceStep& step) { return step.name == name; });
    if (found != run->steps.rend()) return *found;
    TraceStep& step = run->steps.emplace_back();
    step.name = name;
    step.begun = step.ended = run->ended;
    return step;
  }

  static void Measure(const TraceEvent& event, TraceStep* step) {
    step->ended = event.time;
    if (!event.Field("bytes_downloaded").empty()) {
      step->bytes = NumberOf(event.Field("bytes_downloaded"));
    }
    if (!event.Field("elapsed_ms").empty()) step->elapsed_ms = NumberOf(event.Field("elapsed_ms"));
  }

  static void End(std::string_view name, TraceOutcome outcome, const TraceEvent& event,
                  TraceRun* run) {
    TraceStep& step = StepNamed(name, run);
    Measure(event, &step);
    step.outcome = outcome;
    if (!event.Field("error").empty()) step.error = event.Field("error");
  }

  static void FailRun(std::string_view name, const TraceEvent& event, TraceRun* run) {
    if (event.Field("reason") == "deferred_self_replace") name = "replace updater";
    End(name, TraceOutcome::kFailed, event, run);
    run->failure = {event.name, std::string(event.Field("reason")),
                    std::string(event.Field("origin_role")), std::string(event.Field("error"))};
  }

  std::vector<TraceRun>& runs_;
};

TraceOutcome OutcomeOf(const TraceRun& run) {
  if (run.failure) return TraceOutcome::kFailed;
  return run.last_event == "restart_ok" ? TraceOutcome::kSucceeded : TraceOutcome::kNeverEnded;
}

}  // namespace

std::string_view TraceEvent::Field(std::string_view key) const {
  const auto found = fields.find(key);
  return found == fields.end() ? std::string_view() : std::string_view(found->second);
}

std::optional<TraceEvent> ParseTraceLine(std::string_view line) {
  const std::optional<nlohmann::json> object = ParseBoundedObject(line);
  if (!object) return std::nullopt;
  TraceEvent event;
  for (const auto& [key, value] : object->items()) {
    if (value.is_string()) event.fields[key] = value.get<std::string>();
  }
  event.name = event.Field("stage");
  if (event.name.empty()) return std::nullopt;
  event.time = SecondsOf(event.Field("ts"));
  return event;
}

TraceReading ReadTrace(std::string_view text) {
  TraceReading reading;
  RunReader reader(&reading.runs);
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
    if (const auto event = ParseTraceLine(line)) {
      ++reading.events;
      reader.Take(*event);
    } else {
      ++reading.damaged_lines;
    }
  }
  for (TraceRun& run : reading.runs) run.outcome = OutcomeOf(run);
  return reading;
}

}  // namespace zul
