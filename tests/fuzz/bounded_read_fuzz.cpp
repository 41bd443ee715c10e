// Reading a file with a cap.
// Input: a cap in two bytes, how often the content is repeated in one, and the content.

#include <string>

#include "core/bounded_read.h"
#include "core/text.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/temp_folder.h"

namespace zul::fuzz {

namespace {

constexpr std::size_t kHeaderBytes = 3;
constexpr std::size_t kContentBytesMax = 200000;  // more than the buffers of a read hold

void RequireOutcome(const std::string& path, const std::string& content, std::uint64_t cap_bytes) {
  std::string output = "stale";
  const BoundedReadResult result = ReadBounded(path, cap_bytes, output);
  const bool fits = cap_bytes == 0 || content.size() <= cap_bytes;
  const std::string refusal = "File exceeds size cap (" + std::to_string(content.size()) +
                              " bytes > " + std::to_string(cap_bytes) + " bytes): " + path;
  Require(result.status == (fits ? kBoundedReadOk : kBoundedReadTooLarge), "what fits is read");
  Require(output == (fits ? content : ""), "what is read is what is there");
  Require(result.message == (fits ? "" : refusal), "a refusal says both sizes");
}

}  // namespace

void Run(std::string_view input) {
  if (input.size() < kHeaderBytes) return;
  const auto* header = reinterpret_cast<const unsigned char*>(input.data());
  std::string content;
  for (int i = 0; i <= header[2] && content.size() < kContentBytesMax; ++i) {
    content += input.substr(kHeaderBytes);
  }
  static const test::TempFolder folder;
  test::WriteFile(folder / "settings.json", content);
  const std::uint64_t size = content.size();
  for (const std::uint64_t cap_bytes :
       {std::uint64_t{0}, std::uint64_t{1}, size - (size > 0), size, size + 1, ~std::uint64_t{0},
        static_cast<std::uint64_t>(header[0] << 8 | header[1])}) {
    RequireOutcome(PathToUtf8(folder / "settings.json"), content, cap_bytes);
  }
}

}  // namespace zul::fuzz
