#pragma once

// The texts of a report. RedactSupportText works on bytes without their meaning: of a path with
// blanks it replaces the first word only, and of a quoted secret nothing. The functions here know
// what a text is and withhold whole values first: a value between the quotes of a failure text, a
// path to its end, the value of a key that names a path, a secret or a person. The redaction
// follows.
//
// All take any bytes, in linear time.

#include <string>
#include <string_view>

namespace zul {

/// A failure text, of one or more lines, for a report. Of the quoted values only messages of the
/// system and names of programs and services that hold a file stay.
[[nodiscard]] std::string ReportSentence(std::string_view text);

/// The value of a field for a report. A URL keeps its origin and path, but only the origin if the
/// path contains private data.
[[nodiscard]] std::string ReportField(std::string_view key, std::string_view value);

/// The text of a report's file, which consists of plain lines or of lines of the update trace.
/// Without the user's approval it ends before the log tail.
[[nodiscard]] std::string ReportText(std::string_view file_text, bool log_tail_approved);

}  // namespace zul
