#include "apply/self_replace.h"

#include <gtest/gtest.h>

#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/trace_reader.h"

namespace zul {
namespace {

using Texts = std::vector<std::string>;

constexpr int kNoSpace = test::kOnWindows ? 112 : ENOSPC;
constexpr int kInUse = test::kOnWindows ? 32 : EBUSY;
constexpr int kDenied = test::kOnWindows ? 5 : EACCES;

/// A move that does nothing but end in a way that is laid down.
UpdaterMove Fake(const char* name, int number, Texts& made) {
  return [=, &made](const fs::Path&, const fs::Path&, std::error_code& ec) {
    made.emplace_back(name);
    ec = number == 0 ? std::error_code() : SystemError(static_cast<unsigned long>(number));
    return number == 0;
  };
}

TEST(NextCopyPathTest, PutsNextBeforeTheExtension) {
  EXPECT_EQ(NextCopyPath(fs::Path("a b") / "qorva_updater.exe"),
            fs::Path("a b") / "qorva_updater.next.exe");
}

TEST(ReplaceUpdaterDeferredTest, MovesNowOrArrangesItForTheNextStart) {
  const test::TraceInTempFolder trace;
  const fs::Path source = trace.folder() / "updater.next.exe";
  const fs::Path target = trace.folder() / "updater.exe";
  const std::string what =
      "source='" + PathToUtf8(source) + "', target='" + PathToUtf8(target) + "', code=";
  const auto message = [](int number) {
    return SystemErrorText(SystemError(static_cast<unsigned long>(number)));
  };
  const auto failure = [&](const char* context, int number) {
    return std::string(context) + ": " + what + std::to_string(number) + ", message='" +
           message(number) + "'.";
  };
  const struct {
    int now;
    int later;
    Texts moves;
    std::string error;  ///< empty for success
  } cases[] = {
      {0, 0, {"now"}, ""},
      {kInUse, 0, {"now", "later"}, ""},
      {kDenied, 0, {"now", "later"}, ""},
      {kNoSpace, 0, {"now"}, failure("Cannot replace updater file immediately", kNoSpace)},
      {kInUse,
       kNoSpace,
       {"now", "later"},
       failure("Cannot schedule updater replacement on reboot", kNoSpace)},
  };
  test::WriteFile(source, "new");
  Texts warnings;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.now) + ", " + std::to_string(c.later));
    Texts moves;
    std::string error;
    EXPECT_EQ(ReplaceUpdaterDeferred(source, target, &error, Fake("now", c.now, moves),
                                     Fake("later", c.later, moves)),
              c.error.empty());
    EXPECT_EQ(moves, c.moves);
    EXPECT_EQ(error, c.error);
    if (c.moves.size() == 2) {
      warnings.push_back(
          "deferred_self_replace_warning "
          "fallback=movefileex_replace_existing_delayed_until_reboot "
          "immediate_error=" +
          message(c.now) + " immediate_error_code=" + std::to_string(c.now) +
          " source=" + PathToUtf8(source) + " target=" + PathToUtf8(target));
    }
  }
  EXPECT_EQ(trace.Events(), warnings);
  EXPECT_TRUE(test::Exists(source));
}

TEST(ReplaceUpdaterDeferredTest, LooksAtTheSourceBeforeTheTarget) {
  const test::TempFolder folder;
  test::WriteFile(folder / "next", "new");
  const struct {
    fs::Path source;
    std::string error;
  } cases[] = {
      {folder / "missing", "Deferred updater source file is missing."},
      {folder / "no" / "such", "Deferred updater source file is missing."},
      {{}, "Deferred updater source file is missing."},
      {folder / "next", "Deferred updater target path is empty."},
  };
  for (const auto& c : cases) {
    Texts moves;
    std::string error;
    EXPECT_FALSE(ReplaceUpdaterDeferred(c.source, {}, &error, Fake("now", 0, moves),
                                        Fake("later", 0, moves)));
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(moves, Texts{});
  }
}

TEST(ReplaceUpdaterDeferredTest, PutsTheNewFileInPlace) {
  const test::TempFolder folder;
  test::WriteFile(folder / "next", "new");
  test::WriteFile(folder / "updater", "old");
  EXPECT_TRUE(ReplaceUpdaterDeferred(folder / "next", folder / "updater", nullptr));
  EXPECT_EQ(test::ReadFile(folder / "updater"), "new");
  EXPECT_EQ(test::ListTree(folder.path()), "updater\n");
}

}  // namespace
}  // namespace zul
