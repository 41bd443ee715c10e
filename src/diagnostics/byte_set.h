#pragma once

// Fast tests on the bytes of a text: sets built at compile time, and words in either case.

#include <array>
#include <cstddef>
#include <string_view>

namespace zul {

class ByteSet {
 public:
  constexpr explicit ByteSet(std::string_view members) { Add(members); }

  /// The set with `members` added.
  [[nodiscard]] constexpr ByteSet With(std::string_view members) const {
    ByteSet larger = *this;
    larger.Add(members);
    return larger;
  }
  [[nodiscard]] constexpr bool Has(char c) const { return has_[static_cast<unsigned char>(c)]; }

  /// The first position from `pos` on whose byte is in the set, or the text's size.
  [[nodiscard]] constexpr std::size_t Find(std::string_view text, std::size_t pos) const {
    while (pos < text.size() && !Has(text[pos])) ++pos;
    return pos;
  }
  /// The first position from `pos` on whose byte is not in the set, or the text's size.
  [[nodiscard]] constexpr std::size_t Skip(std::string_view text, std::size_t pos) const {
    while (pos < text.size() && Has(text[pos])) ++pos;
    return pos;
  }

 private:
  constexpr void Add(std::string_view members) {
    for (const char c : members) has_[static_cast<unsigned char>(c)] = true;
  }

  std::array<bool, 256> has_{};
};

inline constexpr ByteSet kWhitespace(" \t\n\v\f\r");
inline constexpr ByteSet kAsciiLetters("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ");

/// True when `text` is the lower-case letter `lower` in either case.
[[nodiscard]] constexpr bool IsEitherCase(char text, char lower) {
  return (text | 0x20) == lower;  // the cases differ in this bit only
}

/// True when `text` begins with `lower`, which consists of lower-case letters.
[[nodiscard]] constexpr bool StartsWithLetters(std::string_view text, std::string_view lower) {
  if (text.size() < lower.size()) return false;
  for (std::size_t i = 0; i < lower.size(); ++i) {
    if (!IsEitherCase(text[i], lower[i])) return false;
  }
  return true;
}

}  // namespace zul
