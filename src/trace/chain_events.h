#pragma once

// The update trace: one JSON object a line in update_trace.log for each step of an update run. Each
// line has the stage's own fields and derived ones, whose words the application and support tools
// share. docs/formats/update_trace.md describes the keys.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zul {

/// Key and value of one field, UTF-8. A number is decimal text, a bool "1" or "0".
using ChainEventField = std::pair<std::string, std::string>;

/// The UTF-8 path of update_trace.log: in `logs` in the application configuration folder, or in the
/// current folder when the former is unknown. Creates the configuration folder. Thread-safe.
[[nodiscard]] std::string TraceLogPath();

/// Appends one line to the trace. Does nothing for an empty name. A line that cannot be written is
/// dropped without a report: the trace never stops a run. Thread-safe; each call opens and closes
/// the file. The caller must pass URLs through StripUrlQuery first.
void EmitChainEvent(std::string_view name, const std::vector<ChainEventField>& fields);

/// The `correlation_id` of this process's events: "update-", the time of its first use in
/// milliseconds since 1970, "-0". Thread-safe.
[[nodiscard]] const std::string& CorrelationId();

/// The action of the update chain that an event belongs to; empty for none.
[[nodiscard]] std::string_view MapChainAction(std::string_view name);
/// The phase of an event: "start", "end", "timeout", "failure", "degraded" or empty.
[[nodiscard]] std::string_view MapChainEvent(std::string_view name);
/// The outcome that belongs to a phase; empty for none.
[[nodiscard]] std::string_view MapChainResult(std::string_view chain_event);
/// The catalogue id of the error that the user sees; empty unless the phase is "failure" or
/// "timeout".
[[nodiscard]] std::string_view MapUserErrorId(std::string_view name);

}  // namespace zul
