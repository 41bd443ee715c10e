#pragma once

// Which URLs the system touches: a portable parser for the HTTP client and the report upload, a
// second parser for package downloads on top of the platform's URL cracker, and the allow-list of
// download hosts. The two parsers are deliberately not one. All text is UTF-8 unless wide; nothing
// throws for bad input.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zul {

/// Result of NormalizeUrl. After a failure only `ok` and `error` mean anything.
struct NormalizedUrl {
  bool ok = false;
  bool secure = false;
  std::int32_t port = 0;
  std::string scheme;
  std::string host;
  std::string path_and_query;
  std::string error;
};

/// Result of ParseUpdateUrl.
struct UpdateUrlParts {
  bool ok = false;
  bool secure = true;
  std::uint16_t port = 443;
  std::wstring host;
  std::wstring path_and_query;
  std::string error;
};

[[nodiscard]] NormalizedUrl NormalizeUrl(std::string_view text, bool require_https);

/// The lower-cased host of an https URL. `error` may be null.
[[nodiscard]] bool NormalizeHttpsUrl(std::string_view text, std::string& host, std::string* error);

/// As NormalizeHttpsUrl, with the field's name in the error.
[[nodiscard]] bool ValidateHttpsUrlField(std::string_view url, std::string& host,
                                         std::string_view field_name, std::string* error);

[[nodiscard]] UpdateUrlParts ParseUpdateUrl(std::string_view text);

/// The hosts that packages may come from: distribution, update and two mirrors, in this order.
[[nodiscard]] std::vector<std::string> DefaultUpdateDownloadHosts();

/// True when `url` is a sound https URL whose host is one of `allowed_hosts`, by exact equality
/// after ASCII lower-casing. An empty list means the default hosts.
[[nodiscard]] bool IsAllowedDownloadUrl(std::string_view url,
                                        const std::vector<std::string>& allowed_hosts,
                                        std::string* error);

/// The URL up to its first `?` or `#`. Every URL that reaches a log line or an event passes here
/// first, so that no token does.
[[nodiscard]] std::string StripUrlQuery(std::string_view url);

}  // namespace zul
