#include "core/process_environment.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "core/text.h"

namespace zul {

std::string GetEnvironmentPath(std::string_view name) {
  const char* value = std::getenv(std::string(name).c_str());
  return value != nullptr && IsValidUtf8(value) ? value : std::string();
}

std::uint32_t CurrentProcessId() {
  return static_cast<std::uint32_t>(::getpid());
}

fs::Path CurrentExecutablePath(std::uint32_t max_units) {
  char buffer[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer);
  if (length <= 0 || static_cast<std::size_t>(length) >= max_units) return {};
  return fs::Path(std::string(buffer, static_cast<std::size_t>(length)));
}

fs::Path TempDirectory() {
  const std::string configured = GetEnvironmentPath("TMPDIR");
  return fs::Path((configured.empty() ? "/tmp" : configured) + "/");
}

std::uint64_t TickCountMs() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

std::uint64_t PerformanceCounter() {
  return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

std::tm LocalCalendarTime(std::time_t time) {
  std::tm result{};
  ::localtime_r(&time, &result);
  return result;
}

std::tm UtcCalendarTime(std::time_t time) {
  std::tm result{};
  ::gmtime_r(&time, &result);
  return result;
}

std::optional<fs::Path> RoamingAppDataDirectory(std::uint32_t* hresult) {
  const std::string home = GetEnvironmentPath("HOME");
  if (home.empty()) {
    *hresult = 0x80004005;  // E_FAIL: this system has no HRESULT
    return std::nullopt;
  }
  return fs::Path(home) / ".config";
}

}  // namespace zul
