#pragma once

// Levels and categories of the log, and the two grammars of its filter (docs/formats/log.md).

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace zul {

enum class LogLevel : int { kDebug = 0, kInfo = 1, kWarn = 2, kError = 3 };
enum class LogCategory : int { kGeneral = 0, kDiagnostics = 1, kLicensing = 2, kUpdater = 3 };

inline constexpr std::size_t kLogCategoryCount = 4;

/// The threshold of each category. Lines of a lower level are dropped.
using LogThresholds = std::array<LogLevel, kLogCategoryCount>;

/// The level as a field of five characters; "?????" for an unknown level.
[[nodiscard]] std::string_view LogLevelField(LogLevel level);
/// Index of a category in LogThresholds. An unknown category counts as kGeneral.
[[nodiscard]] std::size_t LogCategoryIndex(LogCategory category);
/// The category's word; "general" for an unknown category.
[[nodiscard]] std::string_view LogCategoryName(LogCategory category);

/// The entries of a filter that were not understood: views into its text, trimmed.
using LogFilterFaults = std::vector<std::string_view>;

/// Parses "name=level" entries separated by "," or ";" (QORVA_LOG_FILTER). No value when an entry
/// is malformed, which `faults` (may be null) receives, or there is no entry.
[[nodiscard]] std::optional<LogThresholds> ParseLogFilter(std::string_view text,
                                                          LogFilterFaults* faults = nullptr);

/// Parses category names separated by "," or ";" (QORVA_LOG_CATEGORIES). The named categories have
/// the threshold DEBUG, the others WARN. No value when a name is unknown, which `faults` (may be
/// null) receives, or there is no name.
[[nodiscard]] std::optional<LogThresholds> ParseLogCategories(std::string_view text,
                                                              LogFilterFaults* faults = nullptr);

}  // namespace zul
