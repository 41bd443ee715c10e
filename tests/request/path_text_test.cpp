#include "request/path_text.h"

#include <gtest/gtest.h>

namespace zul {
namespace {

TEST(PathText, TellsAbsolutePathsAndRoots) {
  struct Case {
    const char* text;
    bool absolute, root_only;
  };
  const Case cases[] = {
      {"C:\\Qorva", true, false},
      {"z:/x", true, false},
      {"C:\\", true, true},
      {"C:\\/\\", true, true},
      {"C:\\.", true, false},
      {"C:", false, true},
      {"C:foo", false, false},
      {"1:\\x", false, false},
      {"\xC5\xBD:\\x", false, false},
      {"\\\\server\\share\\app", true, false},
      {"//server/share", true, false},
      {"\\\\server\\", true, true},
      {"\\\\server", true, true},
      {"\\\\", false, false},
      {"\\\\\\x", false, false},
      {"\\x", false, false},
      {"x\\y", false, false},
      {"", false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(PathStartOf(c.text).absolute, c.absolute) << c.text;
    EXPECT_EQ(PathStartOf(c.text).root_only, c.root_only) << c.text;
  }
}

TEST(PathText, TakesFileNamesBehindEitherSeparator) {
  EXPECT_EQ(FileNameOf("C:\\a/b.exe"), "b.exe");
  EXPECT_EQ(FileNameOf("a/b\\"), "");
  EXPECT_EQ(FileNameOf("b"), "b");
}

}  // namespace
}  // namespace zul
