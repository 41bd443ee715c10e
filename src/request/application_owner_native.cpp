#include "request/application_owner.h"

#include <unistd.h>

#include <climits>

namespace zul {

std::optional<fs::Path> ProcessImagePath(std::uint32_t pid) {
  char buffer[PATH_MAX];
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  const ssize_t length = ::readlink(link.c_str(), buffer, sizeof buffer);
  if (length <= 0 || static_cast<std::size_t>(length) == sizeof buffer) return std::nullopt;
  return fs::Path(std::string(buffer, static_cast<std::size_t>(length)));
}

}  // namespace zul
