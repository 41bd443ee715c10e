#pragma once

// What the reports of recovery have in common. Inside the room only; the door is
// session_recovery.h.

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "core/file_layer.h"
#include "diagnostics/session_recovery.h"

namespace zul {

/// The largest session file that is read; an honest one has a few hundred bytes a breadcrumb.
inline constexpr std::size_t kSessionFileBytesMax = 524288;

/// The session files of a crash folder that nobody has claimed, sorted by name.
[[nodiscard]] std::vector<fs::Path> ListSessionFiles(const fs::Path& crash_directory);

/// ClassifySessionEnd by the clocks of now.
[[nodiscard]] SessionEndClassification ClassifySessionEndNow(const nlohmann::json& session);

/// Adds to a manifest what is known of the previous process: its breadcrumbs, and what may be said
/// about its end, with the promise that goes with it.
void AddSessionForensics(const nlohmann::json& session, const SessionEndClassification& end,
                         nlohmann::json* manifest);

/// Finishes a manifest that was added to: it says what it holds, and its promises stand.
void FinishManifest(nlohmann::json* manifest);

/// Writes a new text file. False, with a failure line of `label`, when there is one or it cannot be
/// written; what was begun is removed.
[[nodiscard]] bool WriteReportText(const fs::Path& path, std::string_view text,
                                   std::string_view label);

}  // namespace zul
