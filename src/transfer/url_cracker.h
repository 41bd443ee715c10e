#pragma once

// The two steps of ParseUpdateUrl: the platform splits a URL, and the result is checked. Inside the
// room only.
//
// If two parsers saw different hosts in one text, the allow-list would check one host and the
// download would connect to the other. `https://good.example?@evil.example/` is such a text. So the
// check compares the platform's host and port with those of NormalizeUrl and refuses a text in
// which they differ.

#include <cstdint>
#include <string>
#include <string_view>

#include "transfer/url_policy.h"

namespace zul {

enum class UrlScheme { kHttp, kHttps };

/// The components of a URL as the documentation of WinHttpCrackUrl defines them, not decoded. User
/// name and password are dropped.
struct CrackedUrl {
  UrlScheme scheme = UrlScheme::kHttp;
  std::wstring host;        ///< an IPv6 address keeps its brackets
  std::uint16_t port = 0;   ///< the default of the scheme when the text has none; 0 means so too
  std::wstring path;        ///< up to the first `?` or `#`; may be empty
  std::wstring extra_info;  ///< query and fragment with their marks; may be empty
};

/// Splits `url` with the platform's parser. False, with `*cracked` unchanged, when the platform
/// does not accept it as an http or https URL.
[[nodiscard]] bool CrackUrl(const std::wstring& url, CrackedUrl* cracked);

/// Checks the components that the platform found in `text`: the second half of ParseUpdateUrl.
[[nodiscard]] UpdateUrlParts JudgeCrackedUrl(std::string_view text, const CrackedUrl& cracked);

}  // namespace zul
