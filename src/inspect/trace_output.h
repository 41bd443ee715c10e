#pragma once

// The runs of a trace for people and for programs.

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "inspect/paper.h"
#include "inspect/trace_runs.h"

namespace zul {

/// One run: its steps, its end, and what to do.
void PrintRun(const TraceRun& run, Paper* paper);

/// What is known about the trace as a whole: how many runs, and lines that are damaged.
void PrintTraceSummary(const TraceReading& reading, Paper* paper);

[[nodiscard]] nlohmann::json RunJson(const TraceRun& run);

/// "2026-01-31 12:30:05" in UTC; "unknown time" for 0.
[[nodiscard]] std::string UtcText(std::int64_t seconds_since_1970);

}  // namespace zul
