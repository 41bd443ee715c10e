#include "request/path_text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>

#include "core/text.h"

namespace zul {

namespace {

constexpr std::string_view kSeparators = "\\/";

bool IsSeparator(char c) {
  return kSeparators.find(c) != std::string_view::npos;
}

bool IsLetter(char c) {
  return AsciiLower(c) >= 'a' && AsciiLower(c) <= 'z';
}

/// Length of `X:` or `\\server`; 0 for neither.
std::size_t RootNameLength(std::string_view text) {
  if (text.size() >= 2 && IsLetter(text[0]) && text[1] == ':') return 2;
  if (text.size() >= 3 && IsSeparator(text[0]) && IsSeparator(text[1]) && !IsSeparator(text[2])) {
    return std::min(text.find_first_of(kSeparators, 2), text.size());
  }
  return 0;
}

}  // namespace

PathStart PathStartOf(std::string_view text) {
  const std::size_t name = RootNameLength(text);
  if (name == 0) return {};
  const bool drive = text[1] == ':';
  const bool rooted = text.size() > name && IsSeparator(text[name]);
  return {.absolute = !drive || rooted,
          .root_only = text.find_first_not_of(kSeparators, name) == std::string_view::npos};
}

std::string_view FileNameOf(std::string_view text) {
  const std::size_t last = text.find_last_of(kSeparators);
  return last == std::string_view::npos ? text : text.substr(last + 1);
}

bool IsApplicationImageName(std::string_view file_name) {
  constexpr std::array<std::string_view, 4> kNames = {"qorva_gui.exe", "qorva.exe",
                                                      "zul_rip_gui.exe", "zul_rip.exe"};
  return std::find(kNames.begin(), kNames.end(), AsciiLower(file_name)) != kNames.end();
}

}  // namespace zul
