#pragma once

// Where a redirect leads, for transports that report the Location header instead of the final URL.

#include <string>
#include <string_view>

namespace zul {

/// The absolute URL of `location` (UTF-8) as seen from `base`, by RFC 3986, section 5.2, without
/// the removal of dot segments. A location that begins with two slashes comes back as it is, and
/// so passes no URL check: clients do not agree on whether it names a host.
[[nodiscard]] std::string ResolveRedirect(std::string_view base, std::string_view location);

}  // namespace zul
