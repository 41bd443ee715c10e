#pragma once

// Text for a person at a terminal. What comes from a file is printed without control characters, so
// that a hostile name cannot move the cursor or hide what follows.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zul {

enum class Colour { kNone, kGood, kBad, kCaution, kStrong, kFaint };

/// Collects lines. With colours, it writes the sequences of ECMA-48 around painted text.
class Paper {
 public:
  explicit Paper(bool colours) : colours_(colours) {}

  /// A blank line (not at the beginning) and a headline.
  void Heading(std::string_view text);
  /// An indented line with a label in a fixed column. An empty label continues the row before.
  void Row(std::string_view label, std::string_view text, Colour colour = Colour::kNone);
  /// As `Row`, for sentences: broken into lines at blanks.
  void Prose(std::string_view label, std::string_view text, Colour colour = Colour::kNone);
  /// An indented line.
  void Line(std::string_view text, Colour colour = Colour::kNone);
  /// At most `kNamesShown` names, one a line, and how many more there are.
  void Names(const std::vector<std::string>& names);

  [[nodiscard]] const std::string& text() const { return text_; }

  static constexpr std::size_t kNamesShown = 8;

 private:
  void Append(std::string_view text, Colour colour);

  const bool colours_;
  std::string text_;
};

/// `text` with "?" for each control character, C0 or C1, each mark that changes the direction of
/// text, and each byte that is not UTF-8.
[[nodiscard]] std::string Printable(std::string_view text);

/// `text` padded with blanks to `columns` characters; longer text stays whole.
[[nodiscard]] std::string Padded(std::string_view text, std::size_t columns);

/// "104.9 MB", in units of 1000.
[[nodiscard]] std::string SizeText(std::uint64_t bytes);

/// "1 file", "2 files".
[[nodiscard]] std::string CountText(std::uint64_t count, std::string_view one,
                                    std::string_view many);

}  // namespace zul
