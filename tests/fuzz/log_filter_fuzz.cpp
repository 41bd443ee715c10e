// The two grammars that filter the log.
// Input: the value of a variable, for both.

#include <algorithm>
#include <string>

#include "core/log_filter.h"
#include "core/text.h"
#include "tests/fuzz/fuzz_target.h"

namespace zul::fuzz {

namespace {

using Grammar = std::optional<LogThresholds> (*)(std::string_view text);

std::string WithBlanksAround(std::string_view text, std::string_view marks) {
  std::string spaced = " ";
  for (const char c : text) {
    const bool is_mark = marks.find(c) != marks.npos;
    spaced += is_mark ? std::string(" \t") + c + "\r\n" : std::string(1, c);
  }
  return spaced + "\v\f";
}

void RequireRules(Grammar parse, std::string_view text, const std::string& sets_all) {
  const std::optional<LogThresholds> thresholds = parse(text);
  Require(parse(AsciiLower(text)) == thresholds, "case does not matter");
  Require(parse(WithBlanksAround(text, ",;=:")) == thresholds, "blanks around words do not matter");
  Require(parse("; ," + std::string(text) + ",;") == thresholds, "empty entries do not matter");

  std::vector<std::string_view> entries = SplitAt(text, ",;");
  std::erase_if(entries, [](std::string_view entry) { return TrimWhitespace(entry).empty(); });
  const bool sound = !entries.empty() && std::all_of(entries.begin(), entries.end(), parse);
  Require(thresholds.has_value() == sound, "a filter is as sound as each of its entries");
  if (!thresholds) return;
  for (const LogLevel level : *thresholds) {
    Require(level >= LogLevel::kDebug && level <= LogLevel::kError, "a threshold is a level");
  }
  Require(parse(std::string(text) + "," + sets_all) == parse(sets_all), "the last entry decides");
}

}  // namespace

void Run(std::string_view input) {
  RequireRules(ParseLogFilter, input, "*=warn");
  RequireRules(ParseLogCategories, input, "*");
}

}  // namespace zul::fuzz
