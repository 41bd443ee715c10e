#pragma once

// Texts made to be slow for whatever looks for private data in them, beside an ordinary one.

#include <cstddef>
#include <string>
#include <vector>

namespace zul::test {

struct NamedText {
  const char* shape;
  std::string text;
};

/// Lines as an update writes them into the log, `size` bytes in all.
[[nodiscard]] std::string OrdinaryLogText(std::size_t size);

/// UTF-8, of about `size` bytes each; the same at each call.
[[nodiscard]] std::vector<NamedText> HostileTexts(std::size_t size);

}  // namespace zul::test
