#pragma once

// The machine-readable story of update runs: one JSON object a line in update_trace.log. Beside the
// stage's own fields each line gets a vocabulary that the application and support tools share.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zul {

/// Key and value of one trace field, UTF-8. Numbers are decimal text, bools "1" or "0".
using ChainEventField = std::pair<std::string, std::string>;

/// UTF-8 path of update_trace.log: logs/ in the application configuration folder, or in the current
/// directory when that folder cannot be determined.
[[nodiscard]] std::string TraceLogPath();

/// Appends one line to the trace. A line that cannot be written is dropped silently: a trace never
/// stops a run. Safe from any thread; each call opens and closes the file. URLs must have passed
/// StripUrlQuery before they come here.
void EmitChainEvent(std::string_view name, const std::vector<ChainEventField>& fields);

/// Step of the update chain that an event belongs to; empty for none.
[[nodiscard]] std::string_view MapChainAction(std::string_view name);
/// Phase of the step: "start", "end", "timeout", "failure", "degraded" or empty.
[[nodiscard]] std::string_view MapChainEvent(std::string_view name);
/// Outcome word of a phase; empty for none.
[[nodiscard]] std::string_view MapChainResult(std::string_view chain_event);
/// Catalogue id of the error that the user sees; empty unless the phase is a failure or time-out.
[[nodiscard]] std::string_view MapUserErrorId(std::string_view name);

}  // namespace zul
