#include "transfer/url_policy.h"

#include <algorithm>
#include <set>
#include <utility>

#include "core/deployment.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::int32_t kMaxPort = 65535;

bool IsHostByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.';
}

/// Host and port text of an authority, as parts of the parsed text.
struct AuthorityParts {
  std::string_view host;
  std::string_view port;  ///< empty for none
  bool bracketed = false;
};

bool SplitBracketedAuthority(std::string_view authority, AuthorityParts& parts,
                             std::string& error) {
  const std::size_t close = authority.find(']');
  if (close == std::string_view::npos || close == 1) {
    error = "Invalid IPv6 URL host";
    return false;
  }
  parts.host = authority.substr(1, close - 1);
  parts.bracketed = true;
  const std::string_view rest = authority.substr(close + 1);
  if (rest.empty()) return true;
  if (rest.front() != ':') {
    error = "Invalid URL authority";
    return false;
  }
  parts.port = rest.substr(1);
  return true;
}

bool SplitNamedAuthority(std::string_view authority, AuthorityParts& parts, std::string& error) {
  const std::size_t colon = authority.rfind(':');
  parts.host = authority.substr(0, colon);
  if (colon != std::string_view::npos) parts.port = authority.substr(colon + 1);
  if (parts.host.empty()) {
    error = "URL host is empty";
    return false;
  }
  if (!std::all_of(parts.host.begin(), parts.host.end(), IsHostByte)) {
    error = "URL host contains unsupported characters";
    return false;
  }
  return true;
}

/// Leaves `port` alone for an empty text.
bool ParsePort(std::string_view text, std::int32_t& port, std::string& error) {
  if (text.empty()) return true;
  std::int32_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') {
      error = "URL port is invalid";
      return false;
    }
    value = value * 10 + (c - '0');
    if (value > kMaxPort) break;
  }
  if (value > kMaxPort || value == 0) {
    error = "URL port is out of range";
    return false;
  }
  port = value;
  return true;
}

/// `tail` is what follows the authority.
std::string RequestPath(std::string_view tail) {
  const std::string_view path = tail.substr(0, tail.find('#'));
  if (path.empty()) return "/";
  return (path.front() == '?' ? "/" : "") + std::string(path);
}

std::set<std::string> FoldedHosts(const std::vector<std::string>& hosts) {
  std::set<std::string> folded;
  for (const std::string& host : hosts) {
    const std::string_view trimmed = TrimWhitespace(host);
    if (!trimmed.empty()) folded.insert(AsciiLower(trimmed));
  }
  return folded;
}

}  // namespace

NormalizedUrl NormalizeUrl(std::string_view text, bool require_https) {
  NormalizedUrl url;
  const auto fail = [&url](std::string_view message) {
    url.error = message;
    return url;
  };

  text = TrimWhitespace(text);
  const std::size_t separator = text.find("://");
  if (separator == std::string_view::npos || separator == 0) {
    return fail("URL must include http or https scheme");
  }
  url.scheme = AsciiLower(text.substr(0, separator));
  if (url.scheme != "http" && url.scheme != "https") {
    return fail("URL scheme must be http or https");
  }
  url.secure = url.scheme == "https";
  if (require_https && !url.secure) return fail("URL must use HTTPS");

  const std::string_view rest = text.substr(separator + 3);
  const std::size_t authority_end = std::min(rest.find_first_of("/?#"), rest.size());
  const std::string_view authority = rest.substr(0, authority_end);
  if (authority.empty() || authority.find('@') != std::string_view::npos) {
    return fail("URL host is empty or contains user info");
  }
  AuthorityParts parts;
  const bool split = authority.front() == '[' ? SplitBracketedAuthority(authority, parts, url.error)
                                              : SplitNamedAuthority(authority, parts, url.error);
  if (!split) return url;
  url.host = parts.bracketed ? std::string(parts.host) : AsciiLower(parts.host);
  url.port = url.secure ? 443 : 80;
  if (!ParsePort(parts.port, url.port, url.error)) return url;
  url.path_and_query = RequestPath(rest.substr(authority_end));
  url.ok = true;
  return url;
}

bool NormalizeHttpsUrl(std::string_view text, std::string& host, std::string* error) {
  NormalizedUrl url = NormalizeUrl(text, true);
  host.clear();
  if (url.ok) {
    host = std::move(url.host);
  } else if (error != nullptr) {
    *error = std::move(url.error);
  }
  return url.ok;
}

bool ValidateHttpsUrlField(std::string_view url, std::string& host, std::string_view field_name,
                           std::string* error) {
  std::string reason;
  if (NormalizeHttpsUrl(TrimWhitespace(url), host, &reason)) return true;
  if (error != nullptr) {
    *error = "Invalid HTTPS URL in " + std::string(field_name) + ": " + reason;
  }
  return false;
}

std::vector<std::string> DefaultUpdateDownloadHosts() {
  return {deployment::kDownloadHosts.begin(), deployment::kDownloadHosts.end()};
}

bool IsAllowedDownloadUrl(std::string_view url, const std::vector<std::string>& allowed_hosts,
                          std::string* error) {
  std::string host;
  if (!ValidateHttpsUrlField(url, host, "download_url", error)) return false;
  std::set<std::string> allowed = FoldedHosts(allowed_hosts);
  if (allowed.empty()) allowed = FoldedHosts(DefaultUpdateDownloadHosts());
  if (allowed.count(host) != 0) return true;
  if (error != nullptr) *error = "Update download host is not allowed: " + host;
  return false;
}

std::string StripUrlQuery(std::string_view url) {
  return std::string(url.substr(0, url.find_first_of("?#")));
}

}  // namespace zul
