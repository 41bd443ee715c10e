// The hand-written steps against the expressions that they stand for, on generated texts. Native
// only: the matches do not depend on the system, and the engine takes its time.

#include <gtest/gtest.h>

#include <boost/regex.hpp>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "diagnostics/redaction_steps.h"

namespace zul {
namespace {

struct Oracle {
  std::string (*step)(std::string_view text);
  const char* expression;
  const char* replacement;
  const char* pieces;  ///< what texts are put together from, with '|' between
};
const Oracle kOracles[] = {
    {RedactEmails, R"(([A-Z0-9._%+\-]+@[A-Z0-9.\-]+\.[A-Z]{2,}))", "[redacted-email]",
     "a|Z9|@|@|.|.|-|%|_|+|bc| |[|\u017e|\n"},
    {RedactAuthorization, R"(((?:authorization)\s*:\s*(?:bearer|basic)\s+)([^\s,;"']+))",
     "$1[redacted-token]",
     "authorization|AUTHORIZATION|:|:| |\t\n|Bearer|basic|bearer |x|,|\"|\u017e|auth"},
    {RedactSwitchSecrets,
     R"(((?:--|/)(?:api[-_]?token|token|secret|password|client[-_]?secret|access[-_]?token|refresh[-_]?token)(?:\s+|=))([^\s,;"']+))",
     "$1[redacted-token]",
     "--|-|/|api|Token|token|secret|client|access|REFRESH|password|_|-|=| |\r\n|x|;|'"},
    {RedactKeyedSecrets,
     R"(((?:license[_-]?key|session[_-]?token|api[_-]?key|secret[_-]?access[_-]?key|access[_-]?key|access[_-]?token|refresh[_-]?token|token|secret|password)\s*[:=]\s*)([^\s,;"']+))",
     "$1[redacted-token]",
     "license|session|Api|secret|access|refresh|key|KEY|token|password|_|-|=|:|=| |\v|x|,|\"|\xFF"},
    {RedactKeyedNames,
     R"(((?:job[_ -]?name|source[_ -]?label|file[_ -]?name|shop[_ -]?name|customer[_ -]?name|person[_ -]?name|operator[_ -]?name)\s*[:=]\s*)([^\r\n,;]+))",
     "$1[redacted-name]",
     "job|source|file|Shop|customer|person|operator|name|Name|label|_| |-|=|:|=|\t|\r\n|x|,|;|name="
     "|job name:"},
};

TEST(RedactionSteps, MatchTheirExpressions) {
  std::mt19937 random(20);
  int changed = 0;
  for (const Oracle& oracle : kOracles) {
    const boost::regex expression(oracle.expression,
                                  boost::regex::ECMAScript | boost::regex::icase);
    std::vector<std::string> pieces;
    std::istringstream list(oracle.pieces);
    for (std::string piece; std::getline(list, piece, '|');) pieces.push_back(piece);
    for (int run = 0; run < 8000; ++run) {
      std::string text;
      for (std::size_t count = 1 + random() % 14; count != 0; --count) {
        text += pieces[random() % pieces.size()];
      }
      const std::string expected = boost::regex_replace(text, expression, oracle.replacement);
      ASSERT_EQ(oracle.step(text), expected) << text;
      changed += expected != text ? 1 : 0;
    }
  }
  EXPECT_GT(changed, 2000);  // the texts do hold what is looked for
}

}  // namespace
}  // namespace zul
