// The redaction of texts that leave the machine.
// Input: a text. Its first line is also the key of a field, and the rest the field's value.

#include <string>

#include "core/text.h"
#include "diagnostics/redaction.h"
#include "diagnostics/redaction_steps.h"
#include "tests/fuzz/fuzz_target.h"

namespace zul::fuzz {

namespace {

void RequireNothingPrivate(std::string_view redacted) {
  for (const std::string_view root : {"\\\\", "/home/", "/Users/", "/tmp/", "/var/folders/"}) {
    Require(redacted.find(root) == redacted.npos, "no path is left");
  }
  for (const std::string_view scheme : {"http://", "https://"}) {
    for (std::size_t url = redacted.find(scheme); url != redacted.npos;
         url = redacted.find(scheme, url + 1)) {
      const std::size_t end = redacted.find_first_of(" \t\n\v\f\r\"'<>[,;", url);
      Require(redacted.find_first_of("?#", url) >= end, "no query is left");
    }
  }
}

void RequireSoundText(std::string_view text) {
  const std::string redacted = RedactSupportText(text);
  Require(!IsValidUtf8(text) || IsValidUtf8(redacted), "UTF-8 stays UTF-8");
  Require(redacted.empty() == text.empty(), "only an empty text becomes an empty text");
  RequireNothingPrivate(redacted);
  // The redaction of a name can remove the blank at the end of a URL.
  Require(StripUrlQueries(redacted) != redacted || RedactSupportText(redacted) == redacted,
          "a second pass changes nothing");
}

void RequireSoundField(std::string_view key, std::string_view value) {
  const std::string sanitized = SanitizeStateValue(key, value);
  const std::string redacted = RedactSupportText(value);
  Require(!IsValidUtf8(value) || IsValidUtf8(sanitized), "UTF-8 stays UTF-8 in a field");
  Require(redacted == value || sanitized == redacted, "a redacted value depends on no key");
  Require(!key.empty() || sanitized == redacted, "without a key a value is a text");
  Require(value.find_first_of("\n\r,;") != value.npos || value.empty() || redacted != value ||
              TrimWhitespace(SanitizeStateValue("job_name", value)) == kRedactedName,
          "a job's name is private");
}

}  // namespace

void Run(std::string_view input) {
  RequireSoundText(input);
  for (const auto& step : {StripUrlQueries, RedactEmails, RedactAuthorization, RedactSwitchSecrets,
                           RedactKeyedSecrets, RedactKeyedNames, RedactPaths, RedactFileNames}) {
    const std::string once = step(input);
    Require(step(once) == once, "a step changes nothing a second time");
  }
  const std::size_t end = input.find('\n');
  if (end != input.npos) RequireSoundField(input.substr(0, end), input.substr(end + 1));
}

}  // namespace zul::fuzz
