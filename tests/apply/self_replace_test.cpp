#include "apply/self_replace.h"

#include <gtest/gtest.h>

#include "core/system_error.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/trace_reader.h"

namespace zul {
namespace {

using Texts = std::vector<std::string>;

constexpr int kNoSpace = test::kOnWindows ? 112 : ENOSPC;
constexpr int kInUse = test::kOnWindows ? 32 : EBUSY;

/// A move that does nothing but end in a way that is laid down.
UpdaterMove Fake(const char* name, int number, Texts& made) {
  return [=, &made](const fs::Path&, const fs::Path&, std::error_code& ec) {
    made.emplace_back(name);
    ec = number == 0 ? std::error_code() : SystemError(static_cast<unsigned long>(number));
    return number == 0;
  };
}

TEST(ReplaceUpdaterDeferredTest, MovesNowOrArrangesItForTheNextStart) {
  const test::TraceInTempFolder trace;
  const fs::Path target = trace.folder() / "updater.exe";
  const fs::Path source = NextCopyPath(target);
  EXPECT_EQ(source, trace.folder() / "updater.next.exe");
  test::WriteFile(source, "new");
  const auto failure = [&](const char* context) {
    return std::string(context) + ": source='" + PathToUtf8(source) + "', target='" +
           PathToUtf8(target) + "', code=" + std::to_string(kNoSpace) + ", message='" +
           SystemErrorText(SystemError(kNoSpace)) + "'.";
  };
  const struct {
    fs::Path source;
    fs::Path target;
    int now;
    int later;
    Texts moves;
    std::string error;  ///< empty for success
  } cases[] = {
      {source, target, 0, 0, {"now"}, ""},
      {source, target, kInUse, 0, {"now", "later"}, ""},
      {source, target, kNoSpace, 0, {"now"}, failure("Cannot replace updater file immediately")},
      {source,
       target,
       kInUse,
       kNoSpace,
       {"now", "later"},
       failure("Cannot schedule updater replacement on reboot")},
      {trace.folder() / "none", {}, 0, 0, {}, "Deferred updater source file is missing."},
      {source, {}, 0, 0, {}, "Deferred updater target path is empty."},
  };
  for (const auto& c : cases) {
    Texts moves;
    std::string error;
    EXPECT_EQ(ReplaceUpdaterDeferred(c.source, c.target, &error, Fake("now", c.now, moves),
                                     Fake("later", c.later, moves)),
              c.error.empty());
    EXPECT_EQ(moves, c.moves);
    EXPECT_EQ(error, c.error);
  }
  const std::string warning =
      "deferred_self_replace_warning fallback=movefileex_replace_existing_delayed_until_reboot "
      "immediate_error=" +
      SystemErrorText(SystemError(kInUse)) + " immediate_error_code=" + std::to_string(kInUse) +
      " source=" + PathToUtf8(source) + " target=" + PathToUtf8(target);
  EXPECT_EQ(trace.Events(), Texts(2, warning));

  test::WriteFile(target, "old");
  EXPECT_TRUE(ReplaceUpdaterDeferred(source, target, nullptr));
  EXPECT_EQ(test::ReadFile(target), "new");
  EXPECT_FALSE(test::Exists(source));
}

}  // namespace
}  // namespace zul
