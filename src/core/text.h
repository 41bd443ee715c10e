#pragma once

// Text and its conversions. Text inside the system is UTF-8 in std::string. Wide text exists only
// where the platform or an interface requires it, and this file has every conversion.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/path.h"

namespace zul {

/// Lower-cases A to Z and leaves every other byte alone, so that UTF-8 stays UTF-8.
[[nodiscard]] char AsciiLower(char c);
/// As above, for each byte of a text.
[[nodiscard]] std::string AsciiLower(std::string_view text);

/// The text without leading and trailing space, tab, LF, VT, FF and CR. A view into `text`.
[[nodiscard]] std::string_view TrimWhitespace(std::string_view text);

/// The parts joined by `separator`.
template <typename Range>
[[nodiscard]] std::string JoinText(const Range& parts, std::string_view separator) {
  std::string joined;
  bool first = true;
  for (const auto& part : parts) {
    if (!first) joined.append(separator);
    joined.append(part);
    first = false;
  }
  return joined;
}

/// True for strict UTF-8 (RFC 3629): no overlong form, no surrogate, no code point above U+10FFFF,
/// no truncated sequence. The empty text is valid.
[[nodiscard]] bool IsValidUtf8(std::string_view text);

/// Appends to `*out` the UTF-8 form of `code_point`, which must be a Unicode scalar value.
void AppendUtf8(std::string* out, char32_t code_point);

/// Converts UTF-8 to wide text (UTF-16 on Windows, UTF-32 on other systems). No value for malformed
/// text. The empty text converts to the empty text.
[[nodiscard]] std::optional<std::wstring> Utf8ToWide(std::string_view text);

/// The reverse conversion. No value for malformed text, such as an unpaired surrogate.
[[nodiscard]] std::optional<std::string> WideToUtf8(std::wstring_view text);

/// As `WideToUtf8`, with U+FFFD for each unit that cannot be converted. For messages.
[[nodiscard]] std::string WideToUtf8Lossy(std::wstring_view text);

/// The path with this UTF-8 text. No value when the text is not valid UTF-8.
[[nodiscard]] std::optional<fs::Path> PathFromUtf8(std::string_view text);

/// As `PathFromUtf8`; the empty path when the text is not valid UTF-8.
[[nodiscard]] fs::Path PathOrEmpty(std::string_view text);

/// A path as UTF-8 text with its own separators, for messages and records. A unit that cannot be
/// converted becomes U+FFFD.
[[nodiscard]] std::string PathToUtf8(const fs::Path& path);

/// As `PathToUtf8`, with `/` as the only separator.
[[nodiscard]] std::string PathToGenericUtf8(const fs::Path& path);

/// Appends `text` to `*out` with the escapes of a JSON string (RFC 8259). Every other byte from 32
/// on is copied.
void AppendJsonEscaped(std::string* out, std::string_view text);

}  // namespace zul
