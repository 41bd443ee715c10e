#include "transfer/redirect_url.h"

#include <algorithm>

namespace zul {

namespace {

bool IsSlash(char c) {
  return c == '/' || c == '\\';
}

/// A colon before the first `/`, `?` or `#` ends a scheme.
bool HasScheme(std::string_view location) {
  const std::size_t mark = location.find_first_of(":/\\?#");
  return mark != std::string_view::npos && mark != 0 && location[mark] == ':';
}

}  // namespace

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
