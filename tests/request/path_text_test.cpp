#include "request/path_text.h"

#include <gtest/gtest.h>

#include <vector>

namespace zul {
namespace {

TEST(PathText, TellsAbsolutePathsAndRoots) {
  const struct {
    bool absolute, root_only;
    std::vector<const char*> texts;
  } cases[] = {
      {true, false, {"C:\\Qorva", "z:/x", "C:\\.", "\\\\server\\share\\app", "//srv/share"}},
      {true, true, {"C:\\", "C:\\/\\", "\\\\server\\", "\\\\server"}},
      {false, true, {"C:"}},
      {false, false, {"C:foo", "1:\\x", "\xC5\xBD:\\x", "\\\\", "\\\\\\x", "\\x", "x\\y", ""}}};
  for (const auto& c : cases) {
    for (const char* text : c.texts) {
      EXPECT_EQ(PathStartOf(text).absolute, c.absolute) << text;
      EXPECT_EQ(PathStartOf(text).root_only, c.root_only) << text;
    }
  }
}

TEST(PathText, TakesFileNamesBehindEitherSeparator) {
  EXPECT_EQ(FileNameOf("C:\\a/b.exe"), "b.exe");
  EXPECT_EQ(FileNameOf("a/b\\"), "");
  EXPECT_EQ(FileNameOf("b"), "b");
}

}  // namespace
}  // namespace zul
