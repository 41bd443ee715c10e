#pragma once

// Texts for which a search for private data may be slow, and an ordinary text to compare.

#include <cstddef>
#include <string>
#include <vector>

namespace zul::test {

/// A text and the name of its shape.
struct NamedText {
  const char* shape;
  std::string text;
};

/// `size` bytes of lines as an update logs them.
[[nodiscard]] std::string OrdinaryLogText(std::size_t size);

/// Texts of about `size` bytes each, UTF-8. Each call returns the same texts.
[[nodiscard]] std::vector<NamedText> HostileTexts(std::size_t size);

}  // namespace zul::test
