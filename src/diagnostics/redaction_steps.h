#pragma once

// The single steps of RedactSupportText. Inside the room only; the door is redaction.h.
//
// Where a regular expression says best what a step matches, it stands in its docstring, in the
// ECMAScript grammar, without regard to case, over bytes in the "C" locale; every match is
// replaced. The steps are written by hand all the same: an expression engine that backtracks can
// take quadratic time or the whole stack on a text made for it, and these read each byte a fixed
// number of times at most. The cuts are at ASCII bytes only, so that UTF-8 stays UTF-8.

#include <cstddef>
#include <string>
#include <string_view>

namespace zul {

/// Cuts each http and https URL at its first `?` or `#`. A URL ends at white space, a quote, `<`
/// or `>`. The case of the scheme does not matter (RFC 3986, section 3.1).
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
/// A name may hold blanks, and so runs to the end of its line or the next `,` or `;`.
[[nodiscard]] std::string RedactKeyedNames(std::string_view text);

/// Paths with a drive, UNC paths, and those below /Users/, /home/, /tmp/ and /var/folders/, up to
/// white space, NUL, a quote, `<`, `>` or `|`.
[[nodiscard]] std::string RedactPaths(std::string_view text);

/// The first position from `pos` on at which such a path begins, or npos.
[[nodiscard]] std::size_t FindPath(std::string_view text, std::size_t pos);

/// Names with one of the listed extensions, outside URLs.
[[nodiscard]] std::string RedactFileNames(std::string_view text);

}  // namespace zul
