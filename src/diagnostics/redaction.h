#pragma once

// What stands between everything that the program has seen and anything that leaves the machine:
// report texts, failure messages, breadcrumb fields, log lines. E-mail addresses, secrets, names,
// paths and file names give way to a marker; what an engineer needs stays.
//
// The pass sees text and no meaning, and so cannot be perfect: a secret of no known form, or what
// follows a blank in a path, gets through. What must never leave is kept out before, by what a
// record may hold.

#include <string>
#include <string_view>

namespace zul {

/// The name of this set of rules in reports. A change of the rules changes the name.
inline constexpr std::string_view kRedactionPolicy = "support_redactor_v1_privacy_schema_v2";

inline constexpr std::string_view kRedactedEmail = "[redacted-email]";
inline constexpr std::string_view kRedactedToken = "[redacted-token]";
inline constexpr std::string_view kRedactedName = "[redacted-name]";
inline constexpr std::string_view kRedactedPath = "[redacted-path]";
inline constexpr std::string_view kRedactedFilename = "[redacted-filename]";

/// The text without private data. Takes any bytes, in time linear to their number; valid UTF-8
/// stays valid. A second pass changes nothing, with one exception: a name that a URL ends in may
/// have held the blank or quote at which the URL ended, and then the second pass cuts more of it.
[[nodiscard]] std::string RedactSupportText(std::string_view text);

/// As RedactSupportText, for the value of a structured field: a value that looks harmless by itself
/// is judged again together with its key, so that what stands in a field `token` or `job_name`
/// goes. An empty key adds nothing.
[[nodiscard]] std::string SanitizeStateValue(std::string_view key, std::string_view value);

}  // namespace zul
