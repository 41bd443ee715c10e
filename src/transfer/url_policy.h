#pragma once

// Which URLs the system touches: a portable parser for the HTTP client and the report upload, a
// second parser for package downloads on top of the platform's URL cracker, the allow-list of
// download hosts, and the target of a redirect. The two parsers are deliberately separate, and each
// checks the other. All text is UTF-8 unless wide; no function throws for bad input.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zul {

/// Result of NormalizeUrl. After a failure only `ok` and `error` are valid.
struct NormalizedUrl {
  bool ok = false;
  bool secure = false;  ///< the scheme is https
  std::int32_t port = 0;
  std::string scheme;          ///< "http" or "https"
  std::string host;            ///< lower-cased; an IPv6 address as it is written, without brackets
  std::string path_and_query;  ///< starts with `/`; without the fragment
  std::string error;
};

/// Result of ParseUpdateUrl. After a failure only `ok` and `error` are valid.
struct UpdateUrlParts {
  bool ok = false;
  bool secure = true;
  std::uint16_t port = 443;
  std::wstring host;            ///< as the platform reports it; an IPv6 address keeps its brackets
  std::wstring path_and_query;  ///< starts with `/`; with the fragment
  std::string error;
};

/// Splits an absolute http or https URL (RFC 3986, section 3) by the system's own rules; white
/// space around it is dropped. The authority ends at the first `/`, `?` or `#`. The host is a name
/// of ASCII letters, digits, `-` and `.`, or an IPv6 address in brackets, whose text is not
/// checked. User information, an empty host and a port outside 1 to 65535 are errors; a missing or
/// empty port is 443 for https and 80 for http. With `require_https`, http is an error too. Touches
/// no network and decodes no escapes.
[[nodiscard]] NormalizedUrl NormalizeUrl(std::string_view text, bool require_https);

/// Stores the host of an https URL in `*host`, as NormalizeUrl has it; empty on failure. `error`
/// may be null.
[[nodiscard]] bool NormalizeHttpsUrl(std::string_view text, std::string* host, std::string* error);

/// As NormalizeHttpsUrl, with the name of the field in the error.
[[nodiscard]] bool ValidateHttpsUrlField(std::string_view url, std::string* host,
                                         std::string_view field_name, std::string* error);

/// Splits the URL of a package download with the platform's URL cracker, so that the host is the
/// one that the platform will connect to; white space around it is dropped. Refuses text that is
/// not UTF-8, control characters, an empty host, any scheme but https, and a URL in which
/// NormalizeUrl finds another host or port. A URL that NormalizeUrl refuses is not refused here for
/// that: IsAllowedDownloadUrl, which every caller asks too, does so with its own message.
[[nodiscard]] UpdateUrlParts ParseUpdateUrl(std::string_view text);

/// The hosts that packages may come from, as built in: distribution, update and two mirrors, in
/// this order.
[[nodiscard]] std::vector<std::string> DefaultUpdateDownloadHosts();

/// True when `url` is an https URL that NormalizeUrl accepts and its host equals one of
/// `allowed_hosts` after ASCII lower-casing. Subdomains do not match. An empty list means the
/// default hosts. `error` may be null.
[[nodiscard]] bool IsAllowedDownloadUrl(std::string_view url,
                                        const std::vector<std::string>& allowed_hosts,
                                        std::string* error);

/// The URL up to its first `?` or `#`. Every URL in a log line or an event goes through here first,
/// because queries may hold tokens.
[[nodiscard]] std::string StripUrlQuery(std::string_view url);

/// The absolute URL that `location`, the Location header of a redirect, names relative to `base`,
/// by RFC 3986, section 5.2, without the removal of dot segments. For transports that report this
/// header instead of the final URL. A location that begins with two slashes (or backslashes) is
/// returned unchanged, so that every URL check refuses it: clients do not agree on whether it names
/// a host.
[[nodiscard]] std::string ResolveRedirect(std::string_view base, std::string_view location);

}  // namespace zul
