#include "core/log_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "core/logger.h"
#include "core/text.h"
#include "tests/support/environment.h"

namespace zul {
namespace {

TEST(LogFilter, EnvironmentOnlyNarrowsAndTheFirstVariableDecides) {
  const std::optional<std::string> unset;
  const struct {
    std::optional<std::string> filter, categories;
    const char* passing;  ///< lowest level that passes: general, diagnostics, licensing, updater
    const char* line = nullptr;  ///< what the log says, where that is checked
  } cases[] = {
      {unset, unset, "1111", ""},
      {"updater=error", "licensing", "1113",
       "[INFO ] Log filter of QORVA_LOG_FILTER: general=DEBUG, diagnostics=DEBUG, "
       "licensing=DEBUG, updater=ERROR"},
      {"general=info,diagnostic:2;LICENSE = Err", unset, "1231"},
      {" ; updater\v=\tTRACE ,, default=3\r\n, ", unset, "3111"},
      {"updater=error,*:warn,update=0", unset, "2221"},     // the last entry decides
      {"updater=warning;bogus=info", "licensing", "1111"},  // and the second variable is not read
      {"bog\nus=info;updater=warning, x", unset, "1111",
       "[WARN ] Log filter of QORVA_LOG_FILTER is ignored, so nothing is filtered: not understood: "
       "'bog?us=info', 'x'"},
      {"updater=2,updater=4", unset, "1111"},
      {"updater=2,updater", unset, "1111"},
      {"updater=2=2", unset, "1111"},
      {"", "licensing", "2212"},
      {unset, " ,Default; \f\tDIAGNOSTICS,;", "1122"},
      {unset, "updater,bogus", "1111"},
      {unset, "updater=1,license", "1111"},
      {unset, " ,; ", "1111",
       "[WARN ] Log filter of QORVA_LOG_CATEGORIES is ignored, so nothing is filtered: it has no "
       "entry"},
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
    if (c.line == nullptr) continue;
    const std::string log = JoinText(logger.RecentLines(0), "\n");
    EXPECT_EQ(log.substr(std::min<std::size_t>(log.size(), 9)), c.line);
  }
}

}  // namespace
}  // namespace zul
