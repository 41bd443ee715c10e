#include "diagnostics/redaction.h"

#include "diagnostics/redaction_steps.h"

namespace zul {

std::string RedactSupportText(std::string_view text) {
  // The order matters: queries go before their parameters can look like secrets, and names go
  // before paths, because a name may contain a path.
  std::string redacted = StripUrlQueries(text);
  redacted = RedactEmails(redacted);
  redacted = RedactAuthorization(redacted);
  redacted = RedactSwitchSecrets(redacted);
  redacted = RedactKeyedSecrets(redacted);
  redacted = RedactKeyedNames(redacted);
  redacted = RedactPaths(redacted);
  return RedactFileNames(redacted);
}

std::string SanitizeStateValue(std::string_view key, std::string_view value) {
  std::string redacted = RedactSupportText(value);
  if (redacted != value || key.empty()) return redacted;
  const std::string prefix = std::string(key) + "=";
  const std::string pair = RedactSupportText(prefix + std::string(value));
  return pair.starts_with(prefix) ? pair.substr(prefix.size()) : redacted;
}

}  // namespace zul
