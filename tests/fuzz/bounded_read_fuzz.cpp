// Reading a file with a cap.
// Input: a cap in two bytes, how often the content is repeated in one, and the content.

#include "core/bounded_read.h"
#include "core/text.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/temp_folder.h"

namespace zul::fuzz {

namespace {

constexpr std::size_t kHeaderBytes = 3;
constexpr std::size_t kContentBytesMax = 200000;  // more than the buffers of a read hold

void RequireOutcome(const fs::Path& path, const std::string& content, std::uint64_t cap_bytes) {
  std::string output = "stale";
  const BoundedReadResult result = ReadBounded(PathToUtf8(path), cap_bytes, output);
  if (cap_bytes == 0 || content.size() <= cap_bytes) {
    Require(result.status == kBoundedReadOk && result.message.empty(), "what fits is read");
    Require(output == content, "what is read is what is there");
  } else {
    Require(result.status == kBoundedReadTooLarge && output.empty(), "what does not fit is not");
    Require(result.message == "File exceeds size cap (" + std::to_string(content.size()) +
                                  " bytes > " + std::to_string(cap_bytes) +
                                  " bytes): " + PathToUtf8(path),
            "a refusal says both sizes");
  }
}

}  // namespace

void Run(std::string_view input) {
  if (input.size() < kHeaderBytes) return;
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(input[at]); };
  std::string content;
  for (int repeats = byte(2); repeats >= 0; --repeats) {
    if (content.size() < kContentBytesMax) content += input.substr(kHeaderBytes);
  }
  static const test::TempFolder folder;
  const fs::Path path = folder / "settings.json";
  test::WriteFile(path, content);
  const std::uint64_t size = content.size();
  for (const std::uint64_t cap_bytes :
       {std::uint64_t{0}, std::uint64_t{1}, size - std::min<std::uint64_t>(size, 1), size, size + 1,
        ~std::uint64_t{0}, static_cast<std::uint64_t>(byte(0) << 8 | byte(1))}) {
    RequireOutcome(path, content, cap_bytes);
  }
}

}  // namespace zul::fuzz
