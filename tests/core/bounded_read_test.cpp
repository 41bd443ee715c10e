#include "core/bounded_read.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::kOnWindows;
using test::WriteFile;

constexpr std::uint64_t kCap = 1048576;

TEST(BoundedRead, ReadsUpToTheCapAndRefusesALargerFile) {
  const test::TempFolder folder;
  const std::string path = PathToUtf8(folder / "ž");
  for (const std::uint64_t size : {0U, 1U, 65536U, 200000U}) {  // up to several buffers
    std::string contents;
    while (contents.size() < size) contents += static_cast<char>(contents.size() % 251);
    WriteFile(folder / "ž", contents);
    for (const std::uint64_t cap : {std::uint64_t{0}, size - 1, size, size + 1}) {
      std::string output = "stale";
      const BoundedReadResult result = ReadBounded(path, cap, &output);
      const bool fits = cap == 0 || size <= cap;  // 0 is no cap
      EXPECT_EQ(result.status, fits ? kBoundedReadOk : kBoundedReadTooLarge) << size << " " << cap;
      EXPECT_TRUE(output == (fits ? contents : "")) << size << " " << cap;
      EXPECT_EQ(result.message, fits ? ""
                                     : "File exceeds size cap (" + std::to_string(size) +
                                           " bytes > " + std::to_string(cap) + " bytes): " + path);
    }
  }
}

// The system reports the size 0 for this file and makes its contents during the read, some KiB for
// each call. So it is a file that grows after its size was taken.
TEST(BoundedRead, HoldsTheCapWhenTheFileGrowsDuringTheRead) {
  if (kOnWindows) GTEST_SKIP() << "Windows has no such file";
  const std::string path = "/proc/self/smaps";
  std::string output;
  EXPECT_EQ(ReadBounded(path, 0, &output).status, kBoundedReadOk);
  EXPECT_GT(output.size(), 12000U);
  for (const std::uint64_t cap : {16U, 5000U, 10000U}) {
    const BoundedReadResult result = ReadBounded(path, cap, &output);
    EXPECT_EQ(result.status, kBoundedReadTooLarge);
    EXPECT_EQ(result.message,
              "File exceeds size cap (> " + std::to_string(cap) + " bytes): " + path);
    EXPECT_EQ(output, "");
  }
}

TEST(BoundedRead, DistinguishesAnAbsentFileFromABrokenPath) {
  const test::TempFolder folder;
  WriteFile(folder / "file", "x");
  WriteFile(folder / "dir/inner", "x");
  for (const auto& [target, link] :
       {std::pair{"nowhere", "dangling"}, {"loop", "loop"}, {"dir", "to_dir"}}) {
    if (!test::MakeLink(target, folder / link)) GTEST_SKIP() << test::kNoLinks;
  }
  std::error_code ec;
  const fs::File held = fs::CreateNewFile(folder / "held", fs::NewFileAccess::kWrite, ec);
  const bool wine = test::RunsUnderWine();
  const auto at = [&](const char* relative) { return PathToUtf8(folder / relative); };
  // A file that cannot be opened is not absent: a file without sharing on Windows, and on other
  // systems, which have no share modes, a link to itself.
  const std::string refused = at(kOnWindows ? "held" : "loop");
  const std::string device = kOnWindows ? "nul" : "/dev/null";
  const std::string unresolved = "Path contains an unresolved reparse point: ";
  const std::pair<std::string, std::string> cases[] = {
      {at("missing/deeper/missing"), ""},
      {at("to_dir/missing"), ""},
      {"no-such-file-in-the-current-directory", ""},
      {at("file/below/deeper"), "Path component is not a directory: " + at("file")},
      // Wine does not show dangling links.
      {at("dangling"), wine ? "" : unresolved + at("dangling")},
      {at("dangling/below/deeper"), wine ? "" : unresolved + at("dangling/below/deeper")},
      // Only Windows refuses to open a folder.
      {at("dir"), (kOnWindows ? "Cannot open file: " : "Path is not a regular file: ") + at("dir")},
      {refused, "Cannot open file: " + refused + ": "},
      {device, "Path is not a regular disk file: " + device},
      {"", "Cannot resolve file path root: "},
      {"\xff", "Cannot open file: "}};
  for (const auto& [path, message] : cases) {  // the beginning of the message; empty when absent
    SCOPED_TRACE(path);
    std::string output = "stale";
    const BoundedReadResult result = ReadBounded(path, kCap, &output);
    EXPECT_EQ(result.status, message.empty() ? kBoundedReadAbsent : kBoundedReadFailed);
    EXPECT_EQ(result.message.substr(0, message.size()), message);
    EXPECT_EQ(result.message.empty(), message.empty());
    EXPECT_EQ(output, "");
  }
}

}  // namespace
}  // namespace zul
