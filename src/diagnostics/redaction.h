#pragma once

// The redaction of every text that leaves the machine: report texts, failure messages, breadcrumb
// fields, log lines. A marker replaces e-mail addresses, secrets, names, paths and file names.
//
// The redaction works on the form of a text and cannot be complete: a secret of unknown form, or
// the part of a path after a blank, remains. What must never leave the machine is therefore not
// allowed into the records in the first place.

#include <string>
#include <string_view>

namespace zul {

/// The name of this set of rules in reports. A change of the rules changes the name.
inline constexpr std::string_view kRedactionPolicy = "support_redactor_v1_privacy_schema_v2";

/// The text with private data replaced. Takes any bytes, in time linear to their number; valid
/// UTF-8 stays valid. A second pass changes nothing, with one exception: a name at the end of a URL
/// may have contained the blank or quote that ended the URL; the second pass then cuts more of it.
[[nodiscard]] std::string RedactSupportText(std::string_view text);

/// As RedactSupportText, for the value of a structured field. A value without private data of its
/// own is checked together with its key, so the value of a field `token` or `job_name` is replaced.
/// An empty key adds nothing.
[[nodiscard]] std::string SanitizeStateValue(std::string_view key, std::string_view value);

}  // namespace zul
