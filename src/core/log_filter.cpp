#include "core/log_filter.h"

#include <string>

#include "core/text.h"

namespace zul {

namespace {

constexpr std::array<std::string_view, kLogCategoryCount> kCategoryNames = {
    "general", "diagnostics", "licensing", "updater"};

struct CategoryWord {
  std::string_view word;
  LogCategory category;
};
constexpr CategoryWord kCategoryWords[] = {
    {"general", LogCategory::kGeneral},         {"default", LogCategory::kGeneral},
    {"diagnostics", LogCategory::kDiagnostics}, {"diagnostic", LogCategory::kDiagnostics},
    {"licensing", LogCategory::kLicensing},     {"license", LogCategory::kLicensing},
    {"updater", LogCategory::kUpdater},         {"update", LogCategory::kUpdater},
};

struct LevelWord {
  std::string_view word;
  LogLevel level;
};
constexpr LevelWord kLevelWords[] = {
    {"debug", LogLevel::kDebug},  {"trace", LogLevel::kDebug}, {"0", LogLevel::kDebug},
    {"info", LogLevel::kInfo},    {"1", LogLevel::kInfo},      {"warn", LogLevel::kWarn},
    {"warning", LogLevel::kWarn}, {"2", LogLevel::kWarn},      {"error", LogLevel::kError},
    {"err", LogLevel::kError},    {"3", LogLevel::kError},
};

std::optional<LogLevel> LevelOf(std::string_view text) {
  const std::string word = AsciiLower(TrimWhitespace(text));
  for (const LevelWord& known : kLevelWords) {
    if (known.word == word) return known.level;
  }
  return std::nullopt;
}

/// Sets the threshold of the category `name`, or of all categories for "*".
bool SetThreshold(LogThresholds* thresholds, std::string_view name, LogLevel level) {
  const std::string word = AsciiLower(TrimWhitespace(name));
  if (word == "*") {
    thresholds->fill(level);
    return true;
  }
  for (const CategoryWord& known : kCategoryWords) {
    if (known.word != word) continue;
    (*thresholds)[static_cast<std::size_t>(known.category)] = level;
    return true;
  }
  return false;
}

/// Applies `apply` to each trimmed, non-empty entry of `text`. No value when an entry fails or
/// there is no entry.
template <typename Apply>
std::optional<LogThresholds> ParseEntries(std::string_view text, LogLevel start,
                                          LogFilterFaults* faults, Apply apply) {
  LogThresholds thresholds;
  thresholds.fill(start);
  bool any = false;
  bool sound = true;
  while (!text.empty()) {
    const std::size_t end = text.find_first_of(",;");
    const std::string_view entry = TrimWhitespace(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (entry.empty()) continue;
    any = true;
    if (apply(&thresholds, entry)) continue;
    sound = false;
    if (faults != nullptr) faults->push_back(entry);
  }
  if (!any || !sound) return std::nullopt;
  return thresholds;
}

}  // namespace

std::string_view LogLevelField(LogLevel level) {
  switch (level) {
    case LogLevel::kDebug:
      return "DEBUG";
    case LogLevel::kInfo:
      return "INFO ";
    case LogLevel::kWarn:
      return "WARN ";
    case LogLevel::kError:
      return "ERROR";
  }
  return "?????";
}

std::size_t LogCategoryIndex(LogCategory category) {
  const auto index = static_cast<std::size_t>(category);
  return index < kLogCategoryCount ? index : 0;
}

std::string_view LogCategoryName(LogCategory category) {
  return kCategoryNames[LogCategoryIndex(category)];
}

std::optional<LogThresholds> ParseLogFilter(std::string_view text, LogFilterFaults* faults) {
  return ParseEntries(text, LogLevel::kDebug, faults,
                      [](LogThresholds* thresholds, std::string_view entry) {
                        const std::size_t split = entry.find_first_of("=:");
                        if (split == std::string_view::npos) return false;
                        const std::optional<LogLevel> level = LevelOf(entry.substr(split + 1));
                        return level && SetThreshold(thresholds, entry.substr(0, split), *level);
                      });
}

std::optional<LogThresholds> ParseLogCategories(std::string_view text, LogFilterFaults* faults) {
  return ParseEntries(text, LogLevel::kWarn, faults,
                      [](LogThresholds* thresholds, std::string_view entry) {
                        return SetThreshold(thresholds, entry, LogLevel::kDebug);
                      });
}

}  // namespace zul
