#include "core/bounded_read.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "core/file_layer.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::kOnWindows;
using test::TempFolder;
using test::WriteFile;

constexpr std::uint64_t kCap = 1048576;

TEST(BoundedRead, ReadsUpToTheCapAndNoByteMore) {
  const struct {
    std::size_t size;
    std::uint64_t cap;
    const char* refusal;  ///< in front of the path; null when read
  } cases[] = {
      {0, kCap, nullptr},
      {1, 1, nullptr},
      {kCap, kCap, nullptr},
      {kCap + 1, kCap, "File exceeds size cap (1048577 bytes > 1048576 bytes): "},
      {2, 1, "File exceeds size cap (2 bytes > 1 bytes): "},
      {kCap + 1, 0, nullptr},
  };
  const TempFolder folder;
  const fs::Path path = folder / "žluť.json";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    std::string contents(c.size, 'x');
    if (!contents.empty()) contents.back() = '\0';
    WriteFile(path, contents);
    std::string output = "stale";
    const BoundedReadResult result = ReadBounded(PathToUtf8(path), c.cap, output);
    if (c.refusal == nullptr) {
      EXPECT_EQ(result.status, kBoundedReadOk);
      EXPECT_EQ(result.message, "");
      EXPECT_TRUE(output == contents);
    } else {
      EXPECT_EQ(result.status, kBoundedReadTooLarge);
      EXPECT_EQ(result.message, c.refusal + PathToUtf8(path));
      EXPECT_EQ(output, "");
    }
  }
}

TEST(BoundedRead, TellsAbsentFromBroken) {
  const TempFolder folder;
  WriteFile(folder / "file", "x");
  WriteFile(folder / "dir/inner", "x");
  if (!test::MakeLink("nowhere", folder / "dangling") || !test::MakeLink("loop", folder / "loop") ||
      !test::MakeLink("dir", folder / "to_dir")) {
    GTEST_SKIP() << "this user may not make links";
  }
  const bool wine = test::RunsUnderWine();
  const auto at = [&](const char* relative) { return PathToUtf8(folder / relative); };
  const std::string unresolved = "Path contains an unresolved reparse point: ";
  const std::string no_folder = "Path component is not a directory: " + at("file");
  const struct {
    std::string path;
    std::string message;  ///< its beginning; empty when the file is absent
  } cases[] = {
      {at("missing"), ""},
      {at("missing/deeper/missing"), ""},
      {at("to_dir/missing"), ""},
      {"no-such-file-in-the-current-directory", ""},
      {"no-such-folder/no-such-file", ""},
      {at("file/below"), no_folder},
      {at("file/below/deeper"), no_folder},
      // Wine does not show dangling links.
      {at("dangling"), wine ? "" : unresolved + at("dangling")},
      {at("dangling/below/deeper"), wine ? "" : unresolved + at("dangling/below/deeper")},
      // Only Windows refuses to open a folder; elsewhere its kind is seen after the open.
      {at("dir"), (kOnWindows ? "Cannot open file: " : "Path is not a regular file: ") + at("dir")},
      {test::NullDevice(), "Path is not a regular disk file: " + test::NullDevice()},
      {"", "Cannot resolve file path root: "},
      {"\xff", "Cannot open file: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    std::string output = "stale";
    const BoundedReadResult result = ReadBounded(c.path, kCap, output);
    EXPECT_EQ(result.status, c.message.empty() ? kBoundedReadAbsent : kBoundedReadFailed);
    EXPECT_EQ(result.message.substr(0, c.message.size()), c.message);
    EXPECT_EQ(result.message.empty(), c.message.empty());
    EXPECT_EQ(output, "");
  }
}

TEST(BoundedRead, NeverTakesARefusalForAbsence) {
  const TempFolder folder;
  std::error_code ec;
  const fs::File held = fs::CreateNewFile(folder / "held", fs::NewFileAccess::kWrite, ec);
  // Where files cannot be held, a link to itself is refused.
  ASSERT_TRUE(kOnWindows || test::MakeLink("loop", folder / "loop"));
  const std::string path = PathToUtf8(folder / (kOnWindows ? "held" : "loop"));
  std::string output;
  const BoundedReadResult result = ReadBounded(path, kCap, output);
  EXPECT_EQ(result.status, kBoundedReadFailed);
  const std::string start = "Cannot open file: " + path + ": ";
  EXPECT_EQ(result.message.substr(0, start.size()), start);
  EXPECT_GT(result.message.size(), start.size());
}

TEST(BoundedRead, StandsAFileThatGrowsAndShrinksMeanwhile) {
  const TempFolder folder;
  const fs::Path path = folder / "busy";
  WriteFile(path, "x");
  // Over and over, the file is cut to nothing and grows to twice the cap.
  const std::jthread writer([&](const std::stop_token& stop) {
    const std::string chunk(kCap / 64, 'x');
    while (!stop.stop_requested()) {
      std::error_code ec;
      fs::File file = fs::CreateTruncatedFile(path, ec);
      for (int i = 0; i < 128 && file.is_open(); ++i) {
        ASSERT_TRUE(fs::WriteAll(file, chunk.data(), chunk.size(), ec)) << ec;
      }
    }
  });
  const std::string grown = "File exceeds size cap (> 1048576 bytes): " + PathToUtf8(path);
  bool saw_growth = false;
  int read = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while ((!saw_growth || read < 50) && std::chrono::steady_clock::now() < deadline) {
    std::string output;
    const BoundedReadResult result = ReadBounded(PathToUtf8(path), kCap, output);
    if (result.status == kBoundedReadOk) {
      ++read;
      ASSERT_LE(output.size(), kCap);
      // A file that shrank must not leave the zeros of the buffer it was to be read into.
      ASSERT_EQ(std::count(output.begin(), output.end(), 'x'),
                static_cast<std::ptrdiff_t>(output.size()));
    } else {
      ASSERT_EQ(result.status, kBoundedReadTooLarge) << result.message;
      ASSERT_EQ(output, "");
      saw_growth = saw_growth || result.message == grown;
    }
  }
  EXPECT_TRUE(saw_growth);
  EXPECT_GE(read, 50);
}

}  // namespace
}  // namespace zul
