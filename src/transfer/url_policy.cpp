#include "transfer/url_policy.h"

#include <algorithm>
#include <set>
#include <utility>

#include "core/deployment.h"
#include "core/failure.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::int32_t kMaxPort = 65535;

bool IsHostByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.';
}

/// Host and port of an authority, as views into the parsed text.
struct AuthorityParts {
  std::string_view host;
  std::string_view port;  ///< empty for none
  bool bracketed = false;
};

bool SplitBracketedAuthority(std::string_view authority, AuthorityParts* parts,
                             std::string* error) {
  const std::size_t close = authority.find(']');
  if (close == std::string_view::npos || close == 1) {
    return Fail(error, "Invalid IPv6 URL host");
  }
  parts->host = authority.substr(1, close - 1);
  parts->bracketed = true;
  const std::string_view rest = authority.substr(close + 1);
  if (rest.empty()) return true;
  if (rest.front() != ':') return Fail(error, "Invalid URL authority");
  parts->port = rest.substr(1);
  return true;
}

bool SplitNamedAuthority(std::string_view authority, AuthorityParts* parts, std::string* error) {
  const std::size_t colon = authority.rfind(':');
  parts->host = authority.substr(0, colon);
  if (colon != std::string_view::npos) parts->port = authority.substr(colon + 1);
  if (parts->host.empty()) return Fail(error, "URL host is empty");
  return std::all_of(parts->host.begin(), parts->host.end(), IsHostByte) ||
         Fail(error, "URL host contains unsupported characters");
}

/// An empty text leaves `*port` unchanged.
bool ParsePort(std::string_view text, std::int32_t* port, std::string* error) {
  if (text.empty()) return true;
  std::int32_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return Fail(error, "URL port is invalid");
    value = value * 10 + (c - '0');
    if (value > kMaxPort) break;
  }
  if (value > kMaxPort || value == 0) return Fail(error, "URL port is out of range");
  *port = value;
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

bool IsSlash(char c) {
  return c == '/' || c == '\\';
}

/// True when a colon comes before the first `/`, `?` or `#`.
bool HasScheme(std::string_view location) {
  const std::size_t mark = location.find_first_of(":/\\?#");
  return mark != std::string_view::npos && mark != 0 && location[mark] == ':';
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
  const bool split = authority.front() == '['
                         ? SplitBracketedAuthority(authority, &parts, &url.error)
                         : SplitNamedAuthority(authority, &parts, &url.error);
  if (!split) return url;
  url.host = parts.bracketed ? std::string(parts.host) : AsciiLower(parts.host);
  url.port = url.secure ? 443 : 80;
  if (!ParsePort(parts.port, &url.port, &url.error)) return url;
  url.path_and_query = RequestPath(rest.substr(authority_end));
  url.ok = true;
  return url;
}

bool NormalizeHttpsUrl(std::string_view text, std::string* host, std::string* error) {
  NormalizedUrl url = NormalizeUrl(text, true);
  host->clear();
  if (!url.ok) return Fail(error, url.error);
  *host = std::move(url.host);
  return true;
}

bool ValidateHttpsUrlField(std::string_view url, std::string* host, std::string_view field_name,
                           std::string* error) {
  std::string reason;
  if (NormalizeHttpsUrl(TrimWhitespace(url), host, &reason)) return true;
  return Fail(error, "Invalid HTTPS URL in " + std::string(field_name) + ": ", reason);
}

std::vector<std::string> DefaultUpdateDownloadHosts() {
  return {deployment::kDownloadHosts.begin(), deployment::kDownloadHosts.end()};
}

bool IsAllowedDownloadUrl(std::string_view url, const std::vector<std::string>& allowed_hosts,
                          std::string* error) {
  std::string host;
  if (!ValidateHttpsUrlField(url, &host, "download_url", error)) return false;
  std::set<std::string> allowed = FoldedHosts(allowed_hosts);
  if (allowed.empty()) allowed = FoldedHosts(DefaultUpdateDownloadHosts());
  return allowed.contains(host) || Fail(error, "Update download host is not allowed: ", host);
}

std::string StripUrlQuery(std::string_view url) {
  return std::string(url.substr(0, url.find_first_of("?#")));
}

std::string ResolveRedirect(std::string_view base, std::string_view location) {
  if (HasScheme(location)) return std::string(location);
  if (location.size() >= 2 && IsSlash(location[0]) && IsSlash(location[1])) {
    return std::string(location);
  }
  const std::string_view document = base.substr(0, base.find_first_of("?#"));
  if (location.empty()) return std::string(document);
  const std::size_t separator = document.find("://");
  if (separator == std::string_view::npos) return std::string(location);
  const std::size_t authority_end = std::min(document.find('/', separator + 3), document.size());
  const std::string_view origin = document.substr(0, authority_end);
  if (IsSlash(location.front())) return std::string(origin) + std::string(location);
  if (location.front() == '?' || location.front() == '#') {
    return std::string(document) + std::string(location);
  }
  const std::string_view path = document.substr(authority_end);
  const std::string_view folder = path.substr(0, path.rfind('/') + 1);
  return std::string(origin) + (folder.empty() ? "/" : std::string(folder)) + std::string(location);
}

}  // namespace zul
