#include "core/bounded_read.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::kOnWindows;
using test::WriteFile;

constexpr std::uint64_t kCap = 1048576;

// What is read up to which cap, the replayed inputs of the fuzzer show.
TEST(BoundedRead, TellsAbsentFromBroken) {
  const test::TempFolder folder;
  WriteFile(folder / "file", "x");
  WriteFile(folder / "dir/inner", "x");
  for (const auto& [target, link] :
       {std::pair{"nowhere", "dangling"}, {"loop", "loop"}, {"dir", "to_dir"}}) {
    if (!test::MakeLink(target, folder / link)) GTEST_SKIP() << "this user may not make links";
  }
  std::error_code ec;
  const fs::File held = fs::CreateNewFile(folder / "held", fs::NewFileAccess::kWrite, ec);
  const bool wine = test::RunsUnderWine();
  const auto at = [&](const char* relative) { return PathToUtf8(folder / relative); };
  // What is refused must not be taken for absent. Where files cannot be held a link to itself is.
  const std::string refused = at(kOnWindows ? "held" : "loop");
  const std::string unresolved = "Path contains an unresolved reparse point: ";
  const std::pair<std::string, std::string> cases[] = {
      {at("missing/deeper/missing"), ""},
      {at("to_dir/missing"), ""},
      {"no-such-file-in-the-current-directory", ""},
      {at("file/below/deeper"), "Path component is not a directory: " + at("file")},
      // Wine does not show dangling links.
      {at("dangling"), wine ? "" : unresolved + at("dangling")},
      {at("dangling/below/deeper"), wine ? "" : unresolved + at("dangling/below/deeper")},
      // Only Windows refuses to open a folder; elsewhere its kind is seen after the open.
      {at("dir"), (kOnWindows ? "Cannot open file: " : "Path is not a regular file: ") + at("dir")},
      {refused, "Cannot open file: " + refused + ": "},
      {test::kNullDevice, std::string("Path is not a regular disk file: ") + test::kNullDevice},
      {"", "Cannot resolve file path root: "},
      {"\xff", "Cannot open file: "}};
  for (const auto& [path, message] : cases) {  // the message's beginning; empty when absent
    SCOPED_TRACE(path);
    std::string output = "stale";
    const BoundedReadResult result = ReadBounded(path, kCap, output);
    EXPECT_EQ(result.status, message.empty() ? kBoundedReadAbsent : kBoundedReadFailed);
    EXPECT_EQ(result.message.substr(0, message.size()), message);
    EXPECT_EQ(result.message.empty(), message.empty());
    EXPECT_EQ(output, "");
  }
}

TEST(BoundedRead, StandsAFileThatGrowsAndShrinksMeanwhile) {
  const test::TempFolder folder;
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
