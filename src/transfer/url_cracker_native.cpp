// Splits a URL as WinHttpCrackUrl documents it, so that ParseUpdateUrl runs on other systems too.

#include "transfer/url_cracker.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "core/text.h"

namespace zul {

namespace {

std::optional<UrlScheme> SchemeOf(std::wstring_view name) {
  const std::string folded = AsciiLower(WideToUtf8Lossy(name));
  if (folded == "http") return UrlScheme::kHttp;
  if (folded == "https") return UrlScheme::kHttps;
  return std::nullopt;
}

/// The port in `text`; `default_port` when it is empty, nothing when it is not a port.
std::optional<std::uint16_t> PortOf(std::wstring_view text, std::uint16_t default_port) {
  if (text.empty()) return default_port;
  std::uint32_t value = 0;
  for (const wchar_t c : text) {
    if (c < L'0' || c > L'9') return std::nullopt;
    value = value * 10 + static_cast<std::uint32_t>(c - L'0');
    if (value > 65535) return std::nullopt;
  }
  return static_cast<std::uint16_t>(value);
}

}  // namespace

bool CrackUrl(const std::wstring& url, CrackedUrl* cracked) {
  std::wstring_view rest = url;
  const std::size_t colon = rest.find(L':');
  if (colon == std::wstring_view::npos) return false;
  const std::optional<UrlScheme> scheme = SchemeOf(rest.substr(0, colon));
  rest.remove_prefix(colon + 1);
  if (!scheme || rest.substr(0, 2) != L"//") return false;
  rest.remove_prefix(2);

  const std::size_t authority_end = std::min(rest.find_first_of(L"/?#"), rest.size());
  std::wstring_view host = rest.substr(0, authority_end);
  const std::wstring_view tail = rest.substr(authority_end);
  if (const std::size_t at = host.rfind(L'@'); at != std::wstring_view::npos) {
    host.remove_prefix(at + 1);
  }
  // A colon inside the brackets of an IPv6 address is not followed by a port.
  std::wstring_view port_text;
  const std::size_t port_colon = host.rfind(L':');
  const std::size_t bracket = host.rfind(L']');
  if (port_colon != std::wstring_view::npos &&
      (bracket == std::wstring_view::npos || port_colon > bracket)) {
    port_text = host.substr(port_colon + 1);
    host = host.substr(0, port_colon);
  }
  const std::optional<std::uint16_t> port =
      PortOf(port_text, *scheme == UrlScheme::kHttps ? 443 : 80);
  if (!port) return false;

  const std::size_t extra = std::min(tail.find_first_of(L"?#"), tail.size());
  *cracked = {*scheme, std::wstring(host), *port, std::wstring(tail.substr(0, extra)),
              std::wstring(tail.substr(extra))};
  return true;
}

}  // namespace zul
