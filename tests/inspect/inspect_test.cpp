// The whole program without its entry: command lines, exit statuses, and what reaches a terminal.

#include "inspect/inspect.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "inspect/paper.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(Inspect, AnswersEveryCommandLineInOneSentence) {
  const test::TempFolder folder;
  const auto at = [&folder](const char* name) { return PathToUtf8(folder / name); };
  test::WriteFile(folder / "empty", "");
  test::WriteFile(folder / "foreign", std::string(70000, '[') + "\n\xff\n");
  test::WriteFile(folder / "trace", "{\"stage\":\"restart_ok\"}\n");
  const struct {
    std::vector<std::string> arguments;
    int status;
    std::string part;  // of either output
  } cases[] = {
      {{}, 2, "package, trace, report or evidence is missing\nTry: qorva_inspect --help"},
      {{"--help"}, 0, "qorva_inspect package FILE.zip"},
      {{"trace", "--help"}, 0, "Example:"},
      {{"packages"}, 2, "unknown word: packages"},
      {{"trace"}, 2, "FILE is missing after trace"},
      {{"trace", "a", "b"}, 2, "this is one more: b"},
      {{"trace", "a", "--symbols=b"}, 2, "unknown switch: --symbols=b"},
      {{"trace", at("trace")}, 0, "The update is installed"},
      {{"trace", at("trace"), "--all", "--json"}, 0, "\"outcome\": \"succeeded\""},
      {{"trace", at("missing"), "--json"}, 2, "{\n  \"error\": \"there is no file "},
      {{"trace", at("empty")}, 2, "is empty"},
      {{"trace", at("foreign")}, 2, "is not an update trace"},
      {{"trace", at("")}, 2, "is a folder"},
      {{"report", at("foreign")}, 2, "is not a report"},
      {{"report", at("empty")}, 2, "is empty"},
      {{"evidence", at("trace")}, 2, "is not a folder"},
      {{"evidence", at("")}, 2, "no evidence"},
      {{"package", at("missing")}, 2, "there is no file"},
      {{"package", at("empty")}, 1, "Not a ZIP archive"},
  };
  for (const auto& c : cases) {
    const InspectOutput output = RunInspect(c.arguments, false);
    EXPECT_EQ(output.status, c.status) << JoinText(c.arguments, " ");
    EXPECT_NE((output.out + output.err).find(c.part), std::string::npos)
        << JoinText(c.arguments, " ") << ": " << output.out << output.err;
  }
}

TEST(Paper, KeepsControlCharactersAwayFromTheTerminal) {
  const std::string hostile = "a\x1b[2J\n\x7f\u0085\u202e\u2066\xff\xc3 ж\u200b";
  EXPECT_EQ(Printable(hostile), "a?[2J??????? ж\u200b");
  Paper plain(false), coloured(true);
  plain.Row("x", hostile, Colour::kBad);
  coloured.Row("x", "y", Colour::kBad);
  EXPECT_EQ(plain.text().find('\x1b'), std::string::npos);
  EXPECT_NE(coloured.text().find("\x1b[31my\x1b[0m"), std::string::npos);
}

}  // namespace
}  // namespace zul
