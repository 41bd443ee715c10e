#include "core/log_filter.h"

#include <gtest/gtest.h>

#include <string>

#include "core/logger.h"
#include "tests/support/environment.h"

namespace zul {
namespace {

// What the words mean, and which variable decides. The grammar's other rules (blanks, case, empty
// and malformed entries, the last one wins) hold for the fuzzer's inputs, too.
TEST(LogFilter, EnvironmentOnlyNarrowsAndTheFirstVariableDecides) {
  const struct {
    std::optional<std::string> filter, categories;
    const char* passing;  ///< lowest level that passes: general, diagnostics, licensing, updater
  } cases[] = {
      {std::nullopt, std::nullopt, "1111"},
      {"updater=error", "licensing", "1113"},
      {"general=info,diagnostic:2;LICENSE = Err", std::nullopt, "1231"},
      {" ; update\t=\tTRACE ,, default=3,", std::nullopt, "3111"},
      {"*=warn,updater=debug", std::nullopt, "2221"},
      {"updater=warning;bogus=info", "licensing", "1111"},  // and the list is still not read
      {"updater=4", std::nullopt, "1111"},
      {"", "licensing", "2212"},
      {std::nullopt, "Default; DIAGNOSTICS", "1122"},
      {std::nullopt, "updater,bogus", "1111"},
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
