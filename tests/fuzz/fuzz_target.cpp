#include "tests/fuzz/fuzz_target.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace zul::fuzz {

void Require(bool holds, std::string_view promise) {
  if (holds) return;
  std::fprintf(stderr, "broken promise: %.*s\n", static_cast<int>(promise.size()), promise.data());
  std::abort();
}

std::vector<std::string_view> SplitAt(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> pieces;
  for (;;) {
    const std::size_t end = text.find_first_of(separators);
    pieces.push_back(text.substr(0, end));
    if (end == text.npos) return pieces;
    text.remove_prefix(end + 1);
  }
}

}  // namespace zul::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zul::fuzz::Run({reinterpret_cast<const char*>(data), size});
  return 0;
}
