#include "core/file_ops.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <regex>
#include <thread>
#include <vector>

#include "core/file_layer.h"
#include "core/system_error.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::Exists;
using test::ListTree;
using test::ReadFile;
using test::TempFolder;
using test::WriteFile;

TEST(PublishNewFile, PublishesWholeOrLeavesEverythingAsItWas) {
  const AtomicPublishOptions plain;
  const AtomicPublishOptions all{.create_parent = true, .flush_parent = true};
  const std::string move = "Cannot atomically publish new file: ";
  const struct {
    const char* target;
    std::string contents;
    AtomicPublishOptions options;
    bool names_temp_file;
    FileOpStatus status;
    std::string message;  ///< in front of the system's text
  } cases[] = {
      {"new", "contents", plain, false, kFileOpOk, ""},
      {"empty", "", all, false, kFileOpOk, ""},
      {"a/b/large ž", std::string(3000000, 'x'), all, false, kFileOpOk, ""},
      {"existing", "other", all, true, kFileOpTargetExists, move},
      {"folder", "other", plain, true, kFileOpTargetExists, move},
      {"missing/new", "x", plain, false, kFileOpBadPath,
       "Cannot create unique temp file for atomic write: "},
      {"existing/new", "x", all, false, kFileOpParentNotCreated,
       "Cannot create parent directory: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target);
    const TempFolder folder;
    WriteFile(folder / "existing", "old");
    WriteFile(folder / "folder/file", "x");
    const std::string before = ListTree(folder.path());
    const FileOpResult result = PublishNewFile(folder / c.target, c.contents, c.options);
    EXPECT_EQ(result.ok, c.status == kFileOpOk);
    EXPECT_EQ(result.status, c.status) << result.message;
    EXPECT_EQ(result.path, PathToUtf8(folder / c.target));
    EXPECT_EQ(ReadFile(folder / "existing"), "old");
    if (result.ok) {
      EXPECT_EQ(result.message, "");
      EXPECT_EQ(result.system_error, 0u);
      EXPECT_TRUE(ReadFile(folder / c.target) == c.contents);
      EXPECT_EQ(ListTree(folder.path()).find(".tmp."), std::string::npos);
    } else {
      EXPECT_EQ(result.message, c.message + SystemErrorText(SystemError(result.system_error)));
      EXPECT_EQ(ListTree(folder.path()), before);
    }
    // Beside the target: its name, four numbers and the attempt.
    const std::regex temp_name(c.names_temp_file ? R"(\.tmp(\.\d+){4}\.0)" : "");
    const std::size_t shared = c.names_temp_file ? result.path.size() : 0;
    EXPECT_EQ(result.temp_path.substr(0, shared), result.path.substr(0, shared));
    EXPECT_TRUE(std::regex_match(result.temp_path.substr(shared), temp_name)) << result.temp_path;
  }
}

TEST(PublishNewFile, TakesABareNameAsOneInTheCurrentDirectory) {
  const TempFolder folder;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  const FileOpResult result =
      PublishNewFile("bare", "x", {.create_parent = true, .flush_parent = true});
  std::filesystem::current_path(before);
  EXPECT_TRUE(result.ok) << result.message;
  EXPECT_EQ(ListTree(folder.path()), "bare\n");
}

TEST(PublishNewFile, LetsOneOfManyPublishersWin) {
  const TempFolder folder;
  for (int round = 0; round < 10; ++round) {
    const fs::Path target = folder / ("target" + std::to_string(round));
    std::atomic<int> winners{0};
    std::string winning;
    {
      std::vector<std::jthread> publishers;
      for (const char letter : {'a', 'b', 'c', 'd'}) {
        publishers.emplace_back([&, contents = std::string(20000, letter)] {
          const FileOpResult result = PublishNewFile(target, contents, {});
          EXPECT_TRUE(result.ok || result.status == kFileOpTargetExists) << result.message;
          if (!result.ok) return;
          ++winners;
          winning = contents;
        });
      }
    }
    EXPECT_EQ(winners, 1);
    EXPECT_EQ(ReadFile(target), winning);
  }
  EXPECT_EQ(ListTree(folder.path()).find(".tmp."), std::string::npos);
}

TEST(PublishNewFile, LeavesNothingOnAFullVolume) {
  const test::SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  const std::string large(std::size_t{8} << 20, 'x');
  const FileOpResult result = PublishNewFile(volume.path() / "file", large, {});
  EXPECT_EQ(result.status, kFileOpDiskFull);
  EXPECT_TRUE(result.message.starts_with("Cannot write temp file for atomic write: "))
      << result.message;
  EXPECT_EQ(ListTree(volume.path()), "");

  std::string error;
  {
    ExclusiveFile file(PathToUtf8(volume.path() / "file"));
    ASSERT_EQ(file.create(&error), 0) << error;
    EXPECT_FALSE(file.write(large.data(), large.size(), &error));
    EXPECT_NE(error, "");
  }
  EXPECT_EQ(ListTree(volume.path()), "");
}

// ---------------------------------------------------------------------------------------------
// ExclusiveFile

/// One call a letter: c create, w write "ab", 0 write of no bytes from nowhere, n write from
/// nowhere, f flush, x close, r release, m move the object away and use what is left.
std::string RunCall(char call, ExclusiveFile& file, std::optional<ExclusiveFile>& moved) {
  std::string error = "stale";
  if (call == 'c') return std::to_string(file.create(&error)) + error;
  if (call == 'r') file.release();
  if (call == 'm') moved.emplace(std::move(file));
  if (call == 'r' || call == 'm') return "";
  const bool ok = call == 'f'   ? file.flush(&error)
                  : call == 'x' ? file.close(&error)
                  : call == 'w' ? file.write("ab", 2, &error)
                                : file.write(nullptr, call == 'n' ? 1 : 0, &error);
  EXPECT_EQ(ok, error.empty());
  return ok ? "ok" : error;
}

TEST(ExclusiveFile, LivesAsItsCallsSay) {
  constexpr const char* kAgain = "2exclusive file creation was already attempted";
  constexpr const char* kNull = "exclusive file write buffer is null";
  constexpr const char* kClosed = "exclusive file is not open";
  constexpr const char* kState = "exclusive file state is unavailable";
  const struct {
    const char* calls;
    std::vector<std::string> outcomes;  ///< the create status with its text, "ok" or the text
    bool existing;
    std::optional<std::string> left;  ///< contents after destruction; nothing when no file is left
  } cases[] = {
      {"cwwfxr", {"0", "ok", "ok", "ok", "ok", ""}, false, "abab"},
      {"cfxr", {"0", "ok", "ok", ""}, false, ""},
      {"cwr", {"0", "ok", ""}, false, "ab"},  // destruction closes
      {"c", {"0"}, false, {}},
      {"cwfx", {"0", "ok", "ok", "ok"}, false, {}},
      {"cc0wxr", {"0", kAgain, "ok", "ok", "ok", ""}, false, "ab"},
      {"cxxwf0nr", {"0", "ok", "ok", kClosed, kClosed, kClosed, kNull, ""}, false, ""},
      {"w0nfxr", {kClosed, kClosed, kNull, kClosed, "ok", ""}, false, {}},
      {"c", {"1"}, true, "old"},
      {"ccwx", {"1", kAgain, kClosed, "ok"}, true, "old"},
      {"cwmcwnfxr",
       {"0", "ok", "", std::string("2") + kState, kState, kState, kState, "ok", ""},
       false,
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.calls);
    const TempFolder folder;
    const fs::Path path = folder / "ž";
    if (c.existing) WriteFile(path, "old");
    {
      std::optional<ExclusiveFile> moved;
      ExclusiveFile file(PathToUtf8(path));
      for (std::size_t i = 0; c.calls[i] != '\0'; ++i) {
        EXPECT_EQ(RunCall(c.calls[i], file, moved), c.outcomes.at(i)) << "call " << i;
      }
    }
    EXPECT_EQ(Exists(path) ? std::optional(ReadFile(path)) : std::nullopt, c.left);
  }
}

TEST(ExclusiveFile, SaysWhyItCannotBeMadeAndRemovesWhatItHeldBefore) {
  const TempFolder folder;
  std::string error;
  for (const std::string& path :
       {PathToUtf8(folder / "missing/file"), std::string(), std::string("\xff\xfe")}) {
    ExclusiveFile file(path);
    error.clear();
    EXPECT_EQ(file.create(&error), 2) << path;
    EXPECT_NE(error, "");
    EXPECT_EQ(file.create(nullptr), 2);
  }
  ExclusiveFile file(PathToUtf8(folder / "a"));
  ASSERT_EQ(file.create(nullptr), 0);
  file = ExclusiveFile(PathToUtf8(folder / "b"));
  EXPECT_EQ(ListTree(folder.path()), "");
  EXPECT_EQ(file.create(nullptr), 0);
  EXPECT_EQ(ListTree(folder.path()), "b\n");
}

}  // namespace
}  // namespace zul
