#pragma once

// The single steps of RedactSupportText, for this room only; other rooms call redaction.h.
//
// A docstring gives the regular expression that a step implements: ECMAScript grammar, without
// regard to case, over bytes in the "C" locale; every match is replaced. The steps are written by
// hand because an expression engine that backtracks can take quadratic time or overflow the stack
// on a hostile text. A step reads each byte a bounded number of times. It cuts at ASCII bytes only,
// so valid UTF-8 stays valid.

#include <cstddef>
#include <string>
#include <string_view>

namespace zul {

/// What a step puts in place of private text.
inline constexpr std::string_view kRedactedEmail = "[redacted-email]";
inline constexpr std::string_view kRedactedToken = "[redacted-token]";
inline constexpr std::string_view kRedactedName = "[redacted-name]";
inline constexpr std::string_view kRedactedPath = "[redacted-path]";
inline constexpr std::string_view kRedactedFilename = "[redacted-filename]";

/// Cuts each http and https URL at its first `?` or `#`. A URL ends at white space, a quote, `<`
/// or `>`. The scheme is matched in either case (RFC 3986, section 3.1).
[[nodiscard]] std::string StripUrlQueries(std::string_view text);

/// [A-Z0-9._%+\-]+@[A-Z0-9.\-]+\.[A-Z]{2,}
[[nodiscard]] std::string RedactEmails(std::string_view text);

/// The second group of ((?:authorization)\s*:\s*(?:bearer|basic)\s+)([^\s,;"']+)
[[nodiscard]] std::string RedactAuthorization(std::string_view text);

/// The second group of
/// ((?:--|/)(?:api[-_]?token|token|secret|password|client[-_]?secret|access[-_]?token|
/// refresh[-_]?token)(?:\s+|=))([^\s,;"']+)
[[nodiscard]] std::string RedactSwitchSecrets(std::string_view text);

/// The second group of
/// ((?:license[_-]?key|session[_-]?token|api[_-]?key|secret[_-]?access[_-]?key|access[_-]?key|
/// access[_-]?token|refresh[_-]?token|token|secret|password)\s*[:=]\s*)([^\s,;"']+)
[[nodiscard]] std::string RedactKeyedSecrets(std::string_view text);

/// The second group of
/// ((?:job[_ -]?name|source[_ -]?label|file[_ -]?name|shop[_ -]?name|customer[_ -]?name|
/// person[_ -]?name|operator[_ -]?name)\s*[:=]\s*)([^\r\n,;]+)
/// A name may contain blanks, so it ends at the end of its line or at `,` or `;`.
[[nodiscard]] std::string RedactKeyedNames(std::string_view text);

/// Paths with a drive, UNC paths, and paths below /Users/, /home/, /tmp/ and /var/folders/. A path
/// ends at white space, NUL, a quote, `<`, `>` or `|`.
[[nodiscard]] std::string RedactPaths(std::string_view text);

/// The first position from `pos` on at which such a path begins, or npos.
[[nodiscard]] std::size_t FindPath(std::string_view text, std::size_t pos);

/// File names with one of the listed extensions, outside URLs.
[[nodiscard]] std::string RedactFileNames(std::string_view text);

}  // namespace zul
