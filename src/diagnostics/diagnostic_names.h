#pragma once

// Small things that all of diagnostics shares: identifiers, times, bounded texts, artifact
// metadata, the failure line.

#include <cstddef>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "core/file_layer.h"

namespace zul {

/// The text with every byte outside A to Z, a to z, 0 to 9, '_', '-', '.' replaced by '_';
/// "diagnostics" when it is empty.
[[nodiscard]] std::string SanitizeIdentifier(std::string_view text);

/// An id that no other call in this process gives: prefix ("report" when empty), local time,
/// process id and a counter, as an identifier.
[[nodiscard]] std::string MakeDiagnosticId(std::string_view prefix);

/// Now in local time, "YYYY-MM-DD HH:MM:SS".
[[nodiscard]] std::string LocalTimeText();

/// Now in local time, "YYYYMMDD_HHMMSS", for file names.
[[nodiscard]] std::string LocalTimeForNames();

/// The start of the text, `max_bytes` at most, cut between two characters of UTF-8. A view into it.
[[nodiscard]] std::string_view CutText(std::string_view text, std::size_t max_bytes);

/// As `CutText`, with "..." behind it when something was cut.
[[nodiscard]] std::string ShortenText(std::string_view text, std::size_t max_bytes);

/// What may be said of a file: `present`, `extension`, `size_bytes`; never its name or folder. For
/// an empty path only `present`, false.
[[nodiscard]] nlohmann::json ArtifactMetadata(const fs::Path& path);

/// The one line that every failure in diagnostics becomes, at warning level: "Diagnostics LABEL
/// failed: TEXT", redacted and bounded.
void LogDiagnosticsFailure(std::string_view label, std::string_view text = {});

/// Runs a step of diagnostics; what it throws becomes the failure line, and goes no further. False
/// when it threw.
bool RunGuarded(std::string_view label, const std::function<void()>& step) noexcept;

/// Writes a JSON file of a session or report with an indent of 2, through "<path>.tmp.<pid>" and
/// one rename, and makes its folder. On failure the old file stays and the failure line is written.
[[nodiscard]] bool WriteDiagnosticsJson(const fs::Path& path, const nlohmann::json& json);

}  // namespace zul
