#include "apply/self_replace.h"

#include <gtest/gtest.h>

#include "core/system_error.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/trace_reader.h"

namespace zul {
namespace {

using Texts = std::vector<std::string>;

const std::error_code kNoSpace = SystemError(test::kOnWindows ? 112 : ENOSPC);
const std::error_code kInUse = SystemError(test::kOnWindows ? 32 : EBUSY);

/// A move that only records its name and ends with `result`.
UpdaterMove Fake(const char* name, const std::error_code& result, Texts* moves) {
  return [=](const fs::Path&, const fs::Path&, std::error_code& ec) {
    moves->emplace_back(name);
    ec = result;
    return !ec;
  };
}

TEST(ReplaceUpdaterDeferred, MovesNowOrAtTheNextStart) {
  const test::TraceInTempFolder trace;
  const fs::Path target = trace.folder() / "updater.exe";
  const fs::Path source = NextCopyPath(target);
  EXPECT_EQ(source, trace.folder() / "updater.next.exe");
  test::WriteFile(source, "new");
  const std::string no_space = ": source='" + PathToUtf8(source) + "', target='" +
                               PathToUtf8(target) + "', " + DescribeSystemError(kNoSpace) + ".";
  const std::string not_replaced = "Cannot replace updater file immediately" + no_space;
  const std::string not_scheduled = "Cannot schedule updater replacement on reboot" + no_space;
  const struct {
    fs::Path source, target;
    std::error_code now, later;
    Texts moves;
    std::string error;  ///< empty for success
  } cases[] = {
      {source, target, {}, {}, {"now"}, ""},
      {source, target, kInUse, {}, {"now", "later"}, ""},
      {source, target, kNoSpace, {}, {"now"}, not_replaced},
      {source, target, kInUse, kNoSpace, {"now", "later"}, not_scheduled},
      {trace.folder() / "none", {}, {}, {}, {}, "Deferred updater source file is missing."},
      {source, {}, {}, {}, {}, "Deferred updater target path is empty."},
  };
  for (const auto& c : cases) {
    Texts moves;
    std::string error;
    EXPECT_EQ(ReplaceUpdaterDeferred(c.source, c.target, &error, Fake("now", c.now, &moves),
                                     Fake("later", c.later, &moves)),
              c.error.empty());
    EXPECT_EQ(moves, c.moves);
    EXPECT_EQ(error, c.error);
  }
  const std::string warning =
      "deferred_self_replace_warning fallback=movefileex_replace_existing_delayed_until_reboot "
      "immediate_error=" +
      SystemErrorText(kInUse) + " immediate_error_code=" + std::to_string(kInUse.value()) +
      " source=" + PathToUtf8(source) + " target=" + PathToUtf8(target);
  EXPECT_EQ(trace.Events(), Texts(2, warning));

  test::WriteFile(target, "old");
  EXPECT_TRUE(ReplaceUpdaterDeferred(source, target, nullptr));
  EXPECT_EQ(test::ReadFile(target), "new");
  EXPECT_FALSE(test::Exists(source));
}

}  // namespace
}  // namespace zul
