#pragma once

// The runs in an update trace, put together from its events. docs/formats/update_trace.md lists the
// events.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zul {

/// How a run or a step of it ended.
enum class TraceOutcome {
  kSucceeded,
  kFailed,
  kNeverEnded,  ///< no event says how: the process was ended, or still runs
};

/// One line of the trace.
struct TraceEvent {
  std::string name;
  std::int64_t time = 0;  ///< seconds since 1970; 0 when the line has no valid time
  std::map<std::string, std::string, std::less<>> fields;  ///< all keys of the line

  /// The value of a field; empty when it is missing.
  [[nodiscard]] std::string_view Field(std::string_view key) const;
};

/// One step of a run, as a person would name it.
struct TraceStep {
  std::string name;    ///< "download", "verify", "unpack", ...
  std::string origin;  ///< of a download or its check: "primary" or "rf_fallback"
  std::int64_t begun = 0;
  std::int64_t ended = 0;  ///< of the last event
  TraceOutcome outcome = TraceOutcome::kNeverEnded;
  std::optional<std::uint64_t> elapsed_ms;  ///< where the updater measured it
  std::uint64_t bytes = 0;
  std::string error;
  std::vector<std::string> notes;
};

/// The failure that ended a run.
struct TraceFailure {
  std::string event;
  std::string reason;  ///< the field `reason`
  std::string origin;  ///< the field `origin_role`
  std::string error;
};

struct TraceRun {
  std::int64_t begun = 0;
  std::int64_t ended = 0;  ///< of the last event
  std::string correlation_id;
  bool handed_over = false;  ///< a copy outside the installation has made the run
  std::map<std::string, std::string, std::less<>> request;  ///< fields of `updater_run_start`
  std::vector<TraceStep> steps;
  std::string last_event;
  TraceOutcome outcome = TraceOutcome::kNeverEnded;
  std::optional<TraceFailure> failure;  ///< of a run that has failed
};

struct TraceReading {
  std::vector<TraceRun> runs;       ///< in the order of their starts
  std::uint64_t events = 0;         ///< lines that are events
  std::uint64_t damaged_lines = 0;  ///< other lines that are not blank
};

/// Reads the text of a trace. Takes any bytes.
[[nodiscard]] TraceReading ReadTrace(std::string_view text);

/// The event in one line; nothing for a line that is not one.
[[nodiscard]] std::optional<TraceEvent> ParseTraceLine(std::string_view line);

}  // namespace zul
