#pragma once

// The short texts in sessions and reports: identifiers, local times, and values cut to a length.

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zul {

/// Ordered keys and values, UTF-8.
using DiagnosticFields = std::vector<std::pair<std::string, std::string>>;

/// The text with every byte outside A to Z, a to z, 0 to 9, '_', '-', '.' replaced by '_';
/// "diagnostics" for an empty text.
[[nodiscard]] std::string SanitizeIdentifier(std::string_view text);

/// An identifier that is unique in this process: prefix ("report" when empty), local time, process
/// id and a counter.
[[nodiscard]] std::string MakeDiagnosticId(std::string_view prefix);

/// The local time now, "YYYY-MM-DD HH:MM:SS".
[[nodiscard]] std::string LocalTimeText();

/// The local time now for file names, "YYYYMMDD_HHMMSS".
[[nodiscard]] std::string LocalTimeForNames();

/// The first `max_bytes` of the text at most, cut between two UTF-8 characters. A view into `text`.
[[nodiscard]] std::string_view CutText(std::string_view text, std::size_t max_bytes);

/// As `CutText`, with "..." appended to a text that was cut.
[[nodiscard]] std::string ShortenText(std::string_view text, std::size_t max_bytes);

}  // namespace zul
