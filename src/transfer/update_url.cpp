// Package download URLs: the check of the components that the platform found.

#include <algorithm>
#include <optional>

#include "core/text.h"
#include "transfer/url_cracker.h"
#include "transfer/url_policy.h"

namespace zul {

namespace {

constexpr std::uint16_t kHttpsPort = 443;

/// A URL holds no control characters (RFC 3986, section 2). Some parsers drop them and others stop
/// at them; a NUL would end the text that is passed to the platform.
bool HasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
  });
}

std::string ComparableHost(std::string_view host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  return AsciiLower(host);
}

/// A text that NormalizeUrl refuses is not a disagreement: the allow-list refuses it with its own
/// message.
bool ParsersDisagree(std::string_view text, const UpdateUrlParts& parts) {
  const NormalizedUrl normalized = NormalizeUrl(text, true);
  if (!normalized.ok) return false;
  return ComparableHost(WideToUtf8Lossy(parts.host)) != ComparableHost(normalized.host) ||
         parts.port != normalized.port;
}

}  // namespace

UpdateUrlParts JudgeCrackedUrl(std::string_view text, const CrackedUrl& cracked) {
  UpdateUrlParts parts;
  if (cracked.host.empty()) {
    parts.error = "Update URL host is empty";
    return parts;
  }
  parts.host = cracked.host;
  parts.path_and_query = (cracked.path.empty() ? L"/" : cracked.path) + cracked.extra_info;
  if (cracked.scheme != UrlScheme::kHttps) {
    parts.secure = false;
    parts.error = "Update URL must use HTTPS";
    return parts;
  }
  parts.port = cracked.port == 0 ? kHttpsPort : cracked.port;
  if (ParsersDisagree(text, parts)) {
    parts.error = "Cannot parse update URL";
    return parts;
  }
  parts.ok = true;
  return parts;
}

UpdateUrlParts ParseUpdateUrl(std::string_view text) {
  UpdateUrlParts refused;
  text = TrimWhitespace(text);
  const std::optional<std::wstring> wide = Utf8ToWide(text);
  if (!wide || wide->empty()) {
    refused.error = "Invalid URL";
    return refused;
  }
  CrackedUrl cracked;
  if (HasControlCharacter(text) || !CrackUrl(*wide, &cracked)) {
    refused.error = "Cannot parse update URL";
    return refused;
  }
  return JudgeCrackedUrl(text, cracked);
}

}  // namespace zul
