#pragma once

// Starting the application again: the GUI after a normal run, or the application with an
// instruction to write its version as JSON after a headless one, so that an observer can tell which
// build came up. The new process is not waited for and the proof is never read here.

#include <string>
#include <string_view>

#include "request/update_request.h"

namespace zul {

/// Name of the proof file, directly in the target folder.
inline constexpr std::string_view kRestartProofFileName = ".qorva_update_restart_proof.json";

/// The argument text for the restarted application, UTF-8; empty in a normal run.
[[nodiscard]] std::string BuildRestartArguments(const UpdateRequest& request);

/// "normal_gui" or "headless_version_proof", for the trace.
[[nodiscard]] std::string_view RestartModeName(const UpdateRequest& request);

/// Starts `exe` (UTF-8) with `arguments` copied as they stand. True when the process was created;
/// nothing waits for it. On failure `error` (may be null) receives a fixed text.
[[nodiscard]] bool LaunchApplication(std::string_view exe, std::string_view arguments,
                                     std::string* error);

}  // namespace zul
