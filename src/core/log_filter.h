#pragma once

// Levels and categories of the log, and the two little grammars that filter them.

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace zul {

enum class LogLevel : int { kDebug = 0, kInfo = 1, kWarn = 2, kError = 3 };
enum class LogCategory : int { kGeneral = 0, kDiagnostics = 1, kLicensing = 2, kUpdater = 3 };

inline constexpr std::size_t kLogCategoryCount = 4;

/// One threshold a category: lines below it are dropped.
using LogThresholds = std::array<LogLevel, kLogCategoryCount>;

/// The level in a field of five characters; "?????" for no level.
[[nodiscard]] std::string_view LogLevelField(LogLevel level);
/// Index of a category in a table of them; an unknown category counts as kGeneral.
[[nodiscard]] std::size_t LogCategoryIndex(LogCategory category);
/// The category's word; "general" for no category.
[[nodiscard]] std::string_view LogCategoryName(LogCategory category);

/// Parses "name=level" entries separated by "," or ";" (QORVA_LOG_FILTER). Nothing when any entry
/// is malformed or there is none.
[[nodiscard]] std::optional<LogThresholds> ParseLogFilter(std::string_view text);

/// Parses category names separated by "," or ";" (QORVA_LOG_CATEGORIES): the named ones drop to
/// DEBUG, the others stay at WARN. Nothing when a name is unknown or there is none.
[[nodiscard]] std::optional<LogThresholds> ParseLogCategories(std::string_view text);

}  // namespace zul
