#pragma once

// What a report may say in words. The redaction of a text sees bytes and no meaning: of a path with
// blanks it takes the first word, of a quoted secret nothing. Here it is known what the texts are,
// so whole values are held back before the redaction: what stands between the quotes of a failure
// text, a path to its end, the value of a key that names a path, a secret or a person.
//
// All take any bytes in linear time, and pass the redaction themselves.

#include <string>
#include <string_view>

namespace zul {

/// A failure text or a few lines of one, for a report. Of quoted values only system messages and
/// the names of programs that hold a file stay.
[[nodiscard]] std::string ReportSentence(std::string_view text);

/// The value of a field for a report. Of a URL its origin and path stay, and only the origin when
/// something private shows in the path.
[[nodiscard]] std::string ReportField(std::string_view key, std::string_view value);

/// The text of a report's file, which may be plain lines or the update trace. Without the user's
/// approval it ends where the log's tail begins.
[[nodiscard]] std::string ReportText(std::string_view file_text, bool log_tail_approved);

}  // namespace zul
