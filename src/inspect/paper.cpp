#include "inspect/paper.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "core/text.h"

namespace zul {

namespace {

constexpr std::size_t kLabelColumns = 14;
constexpr std::size_t kProseColumns = 84;

std::string_view SequenceOf(Colour colour) {
  switch (colour) {
    case Colour::kGood:
      return "\x1b[32m";
    case Colour::kBad:
      return "\x1b[31m";
    case Colour::kCaution:
      return "\x1b[33m";
    case Colour::kStrong:
      return "\x1b[1m";
    case Colour::kFaint:
      return "\x1b[2m";
    case Colour::kNone:
      break;
  }
  return {};
}

bool IsContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

/// True for a whole character that must not reach a terminal.
bool IsHarmful(std::string_view character) {
  const auto first = static_cast<unsigned char>(character.front());
  if (character.size() == 1) return first < 0x20 || first == 0x7F;
  const auto last = static_cast<unsigned char>(character.back());
  if (first == 0xC2) return last < 0xA0;  // C1
  const bool embeds = character.starts_with("\xE2\x80") && last >= 0xAA && last <= 0xAE;
  const bool isolates = character.starts_with("\xE2\x81") && last >= 0xA6 && last <= 0xA9;
  return embeds || isolates;
}

std::size_t CharactersIn(std::string_view text) {
  return text.size() -
         static_cast<std::size_t>(std::count_if(text.begin(), text.end(), IsContinuation));
}

}  // namespace

void Paper::Heading(std::string_view text) {
  if (!text_.empty()) text_ += '\n';
  Append(text, Colour::kStrong);
  text_ += '\n';
}

void Paper::Row(std::string_view label, std::string_view text, Colour colour) {
  text_ += "  " + Padded(label, kLabelColumns);
  Append(text, colour);
  text_ += '\n';
}

void Paper::Prose(std::string_view label, std::string_view text, Colour colour) {
  while (text.size() > kProseColumns) {
    std::size_t blank = text.rfind(' ', kProseColumns);
    if (blank == std::string_view::npos) blank = text.find(' ', kProseColumns);
    if (blank == std::string_view::npos) break;
    Row(label, text.substr(0, blank), colour);
    text.remove_prefix(blank + 1);
    label = {};
  }
  Row(label, text, colour);
}

void Paper::Line(std::string_view text, Colour colour) {
  text_ += "  ";
  Append(text, colour);
  text_ += '\n';
}

void Paper::Names(const std::vector<std::string>& names) {
  const std::size_t shown = std::min(names.size(), kNamesShown);
  for (std::size_t i = 0; i < shown; ++i) Row("", names[i], Colour::kFaint);
  if (names.size() > shown) {
    Row("", "and " + std::to_string(names.size() - shown) + " more", Colour::kFaint);
  }
}

void Paper::Append(std::string_view text, Colour colour) {
  const bool painted = colours_ && colour != Colour::kNone && !text.empty();
  if (painted) text_ += SequenceOf(colour);
  text_ += Printable(text);
  if (painted) text_ += "\x1b[0m";
}

std::string Printable(std::string_view text) {
  std::string printable;
  printable.reserve(text.size());
  while (!text.empty()) {
    std::size_t size = 1;
    while (size < text.size() && size < 4 && IsContinuation(text[size])) ++size;
    const std::string_view character = text.substr(0, size);
    if (IsValidUtf8(character) && !IsHarmful(character)) {
      printable.append(character);
    } else {
      printable += '?';
    }
    text.remove_prefix(size);
  }
  return printable;
}

std::string Padded(std::string_view text, std::size_t columns) {
  std::string padded(text);
  const std::size_t characters = CharactersIn(text);
  if (characters < columns) padded.append(columns - characters, ' ');
  return padded;
}

std::string SizeText(std::uint64_t bytes) {
  constexpr std::array<const char*, 5> kUnits = {"kB", "MB", "GB", "TB", "PB"};
  if (bytes < 1000) return CountText(bytes, "byte", "bytes");
  double size = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  for (; size >= 999.95 && unit + 1 < kUnits.size(); ++unit) size /= 1000;
  char text[32];
  static_cast<void>(std::snprintf(text, sizeof text, "%.1f %s", size, kUnits[unit]));
  return text;
}

std::string CountText(std::uint64_t count, std::string_view one, std::string_view many) {
  return std::to_string(count) + " " + std::string(count == 1 ? one : many);
}

}  // namespace zul
