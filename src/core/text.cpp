#include "core/text.h"

#include <cstddef>

namespace zul {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kMalformed = 0xFFFFFFFF;

bool IsSurrogate(char32_t code_point) {
  return code_point >= 0xD800 && code_point <= 0xDFFF;
}

/// Removes one code point from the front of `text` and returns it. For malformed text removes one
/// byte and returns kMalformed.
char32_t TakeUtf8(std::string_view& text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  std::size_t length = 0;
  char32_t value = 0;
  char32_t least = 0;
  if (lead < 0x80) {
    text.remove_prefix(1);
    return lead;
  }
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, value = lead & 0x1Fu, least = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, value = lead & 0x0Fu, least = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, value = lead & 0x07u, least = 0x10000;
  }
  bool sound = length != 0 && text.size() >= length;
  for (std::size_t i = 1; sound && i < length; ++i) {
    sound = (byte(i) & 0xC0u) == 0x80u;
    value = (value << 6) | (byte(i) & 0x3Fu);
  }
  if (!sound || value < least || value > 0x10FFFF || IsSurrogate(value)) {
    text.remove_prefix(1);
    return kMalformed;
  }
  text.remove_prefix(length);
  return value;
}

/// As TakeUtf8, for wide text of 16-bit or 32-bit units.
char32_t TakeWide(std::wstring_view& text) {
  const auto unit = static_cast<char32_t>(text.front());
  text.remove_prefix(1);
  if constexpr (sizeof(wchar_t) == 2) {
    if (unit >= 0xD800 && unit <= 0xDBFF && !text.empty()) {
      const auto low = static_cast<char32_t>(text.front());
      if (low >= 0xDC00 && low <= 0xDFFF) {
        text.remove_prefix(1);
        return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
      }
    }
  }
  return IsSurrogate(unit) || unit > 0x10FFFF ? kMalformed : unit;
}

void AppendWide(std::wstring* out, char32_t code_point) {
  if constexpr (sizeof(wchar_t) == 2) {
    if (code_point >= 0x10000) {
      code_point -= 0x10000;
      out->push_back(static_cast<wchar_t>(0xD800 + (code_point >> 10)));
      out->push_back(static_cast<wchar_t>(0xDC00 + (code_point & 0x3FF)));
      return;
    }
  }
  out->push_back(static_cast<wchar_t>(code_point));
}

/// Converts to UTF-8, with U+FFFD for each malformed unit. False when there was one.
bool ConvertWide(std::wstring_view text, std::string* out) {
  bool sound = true;
  out->reserve(text.size());
  while (!text.empty()) {
    char32_t code_point = TakeWide(text);
    if (code_point == kMalformed) {
      sound = false;
      code_point = kReplacement;
    }
    AppendUtf8(out, code_point);
  }
  return sound;
}

/// Converts the native text of a path: wide text on Windows, bytes on other systems.
template <typename Char>
std::string NativeToUtf8(const std::basic_string<Char>& native) {
  if constexpr (sizeof(Char) > 1) {
    return WideToUtf8Lossy(native);
  } else {
    std::string out;
    std::string_view rest = native;
    while (!rest.empty()) {
      const char32_t code_point = TakeUtf8(rest);
      AppendUtf8(&out, code_point == kMalformed ? kReplacement : code_point);
    }
    return out;
  }
}

}  // namespace

char AsciiLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string AsciiLower(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) c = AsciiLower(c);
  return lowered;
}

std::string_view TrimWhitespace(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\n\v\f\r";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool IsValidUtf8(std::string_view text) {
  while (!text.empty()) {
    if (TakeUtf8(text) == kMalformed) return false;
  }
  return true;
}

void AppendUtf8(std::string* out, char32_t code_point) {
  const auto put = [&](char32_t bits) { out->push_back(static_cast<char>(bits)); };
  if (code_point < 0x80) {
    put(code_point);
  } else if (code_point < 0x800) {
    put(0xC0 | (code_point >> 6));
    put(0x80 | (code_point & 0x3F));
  } else if (code_point < 0x10000) {
    put(0xE0 | (code_point >> 12));
    put(0x80 | ((code_point >> 6) & 0x3F));
    put(0x80 | (code_point & 0x3F));
  } else {
    put(0xF0 | (code_point >> 18));
    put(0x80 | ((code_point >> 12) & 0x3F));
    put(0x80 | ((code_point >> 6) & 0x3F));
    put(0x80 | (code_point & 0x3F));
  }
}

std::optional<std::wstring> Utf8ToWide(std::string_view text) {
  std::wstring wide;
  wide.reserve(text.size());
  while (!text.empty()) {
    const char32_t code_point = TakeUtf8(text);
    if (code_point == kMalformed) return std::nullopt;
    AppendWide(&wide, code_point);
  }
  return wide;
}

std::optional<std::string> WideToUtf8(std::wstring_view text) {
  std::string out;
  if (!ConvertWide(text, &out)) return std::nullopt;
  return out;
}

std::string WideToUtf8Lossy(std::wstring_view text) {
  std::string out;
  ConvertWide(text, &out);
  return out;
}

std::optional<fs::Path> PathFromUtf8(std::string_view text) {
  if constexpr (sizeof(fs::Path::value_type) == 1) {
    if (!IsValidUtf8(text)) return std::nullopt;
    return fs::Path(text.begin(), text.end());
  } else {
    std::optional<std::wstring> wide = Utf8ToWide(text);
    if (!wide) return std::nullopt;
    return fs::Path(*std::move(wide));
  }
}

std::string PathToUtf8(const fs::Path& path) {
  return NativeToUtf8(path.native());
}

std::string PathToGenericUtf8(const fs::Path& path) {
  std::string text = PathToUtf8(path);
  if constexpr (fs::Path::preferred_separator != '/') {
    for (char& c : text) {
      if (c == '\\') c = '/';
    }
  }
  return text;
}

fs::Path PathOrEmpty(std::string_view text) {
  return PathFromUtf8(text).value_or(fs::Path());
}

void AppendJsonEscaped(std::string* out, std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  out->reserve(out->size() + text.size() + 8);
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '"':
        *out += "\\\"";
        break;
      case '\\':
        *out += "\\\\";
        break;
      case '\n':
        *out += "\\n";
        break;
      case '\r':
        *out += "\\r";
        break;
      case '\t':
        *out += "\\t";
        break;
      default:
        if (byte >= 32) {
          out->push_back(c);
        } else {
          *out += "\\u00";
          out->push_back(kDigits[byte >> 4]);
          out->push_back(kDigits[byte & 0xF]);
        }
    }
  }
}

}  // namespace zul
