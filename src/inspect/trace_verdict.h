#pragma once

// What a failed or unfinished run means: the text that the user saw, who can help, and how.

#include <string>
#include <string_view>

#include "inspect/package_advice.h"
#include "inspect/trace_runs.h"

namespace zul {

/// The text of the message box that ended a failed run; empty for any other run.
[[nodiscard]] std::string UserText(const TraceRun& run);

struct TraceVerdict {
  std::string summary{};       ///< one sentence
  std::string advice{};        ///< one sentence; empty for a run that succeeded
  std::string installation{};  ///< what has become of the installed files; one sentence
  Remedy remedy = Remedy::kProduct;
};

/// The meaning of a run.
[[nodiscard]] TraceVerdict JudgeRun(const TraceRun& run);

}  // namespace zul
