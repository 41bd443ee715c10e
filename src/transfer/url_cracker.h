#pragma once

// The platform's way of taking a URL apart, and the judgement of what came out. Inside the room
// only; the door is ParseUpdateUrl.
//
// Two parsers that see different hosts in one text would open a hole in the allow-list: one host
// would be judged and another one connected to. `https://good.example?@evil.example/` is such a
// text. So the judgement compares the platform's host and port with those of NormalizeUrl and
// refuses a text on which they differ.

#include <cstdint>
#include <string>
#include <string_view>

#include "transfer/url_policy.h"

namespace zul {

enum class UrlScheme { kHttp, kHttps };

/// The components of a URL as WinHttpCrackUrl documents them, undecoded. A user name and password
/// are split off and dropped.
struct CrackedUrl {
  UrlScheme scheme = UrlScheme::kHttp;
  std::wstring host;        ///< an IPv6 address keeps its brackets
  std::uint16_t port = 0;   ///< the scheme's own when the text names none; 0 means the same
  std::wstring path;        ///< up to the first `?` or `#`; may be empty
  std::wstring extra_info;  ///< query and fragment with their marks; may be empty
};

/// Takes `url` apart. False when it is not a URL of http or https that the platform understands;
/// `cracked` is not changed then.
[[nodiscard]] bool CrackUrl(const std::wstring& url, CrackedUrl& cracked);

/// What the cracked components of `text` make of it as a download URL.
[[nodiscard]] UpdateUrlParts JudgeCrackedUrl(std::string_view text, const CrackedUrl& cracked);

}  // namespace zul
