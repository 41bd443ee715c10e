#include "core/log_filter.h"

#include <gtest/gtest.h>

#include <string>

#include "core/logger.h"
#include "tests/support/environment.h"

namespace zul {
namespace {

/// Thresholds as one digit a category, "-" for a filter that failed: "0030".
std::string Digits(const std::optional<LogThresholds>& thresholds) {
  if (!thresholds) return "-";
  std::string digits;
  for (const LogLevel level : *thresholds) digits += std::to_string(static_cast<int>(level));
  return digits;
}

/// A text and its levels for general, diagnostics, licensing and updater.
using FilterCase = std::pair<const char*, const char*>;

TEST(LogFilter, ParsesLevelsPerCategory) {
  const FilterCase cases[] = {{"updater=debug", "0000"},
                              {"updater=warn", "0002"},
                              {"general=info,diagnostic:2;LICENSE = Err", "1230"},
                              {"*=warn,updater=debug", "2220"},
                              {"updater=debug,*=warn", "2222"},
                              {" ; update\t=\tTRACE ,, default=3,", "3000"},
                              {"updater=0,updater=warning", "0002"}};
  for (const auto& [text, levels] : cases) EXPECT_EQ(Digits(ParseLogFilter(text)), levels) << text;
  for (const char* malformed :
       {"updater:info=x", "updater=debug;bogus=info", "updater=loud", "updater=", "=info",
        "updater", "updater=4", "updater=in fo", "", " , ; "}) {
    EXPECT_EQ(ParseLogFilter(malformed), std::nullopt) << malformed;
  }
}

TEST(LogFilter, ParsesCategoryLists) {
  const FilterCase cases[] = {{"updater", "2220"},     {"Default; DIAGNOSTICS", "0022"},
                              {"*", "0000"},           {" ,", "-"},
                              {"updater,bogus", "-"},  {"updater=debug", "-"},
                              {"licensing,,*", "0000"}};
  for (const auto& [text, levels] : cases) {
    EXPECT_EQ(Digits(ParseLogCategories(text)), levels) << text;
  }
}

TEST(LogFilter, EnvironmentOnlyNarrowsAndTheFirstVariableDecides) {
  const struct {
    std::optional<std::string> filter, categories;
    const char* passing;  ///< lowest level that passes, per category
  } cases[] = {
      {std::nullopt, std::nullopt, "1111"},
      {"updater=error", "licensing", "1113"},
      {"updater=bogus", "licensing", "1111"},  // malformed, and the list is still not read
      {"", "licensing", "2212"},
      {"*=debug", std::nullopt, "1111"},
      {"*=warn,updater=debug", std::nullopt, "2221"},
      {std::nullopt, "bogus", "1111"},
  };
  for (const auto& c : cases) {
    const test::ScopedEnvironment filter("QORVA_LOG_FILTER", c.filter);
    const test::ScopedEnvironment categories("QORVA_LOG_CATEGORIES", c.categories);
    Logger logger;
    logger.ApplyFilterFromEnvironment();
    std::string passing;
    for (int category = 0; category < 4; ++category) {
      int level = 0;
      while (!logger.Passes(LogCategory{category}, LogLevel{level})) ++level;
      passing += std::to_string(level);
    }
    EXPECT_EQ(passing, c.passing) << c.filter.value_or("unset") << " | "
                                  << c.categories.value_or("unset");
  }
}

}  // namespace
}  // namespace zul
