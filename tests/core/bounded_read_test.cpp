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

// As a file that grows meanwhile: what the system makes as it is read is said to have no size.
TEST(BoundedRead, ReadsOnBehindTheSizeThatTheFileHad) {
  const std::string path = "/proc/self/status";
  if (kOnWindows) GTEST_SKIP() << "no such file here";
  std::string output;
  EXPECT_EQ(ReadBounded(path, kCap, output).status, kBoundedReadOk);
  EXPECT_NE(output.find("VmPeak"), std::string::npos);
  const BoundedReadResult result = ReadBounded(path, 16, output);
  EXPECT_EQ(result.status, kBoundedReadTooLarge);
  EXPECT_EQ(result.message, "File exceeds size cap (> 16 bytes): " + path);
  EXPECT_EQ(output, "");
}

}  // namespace
}  // namespace zul
