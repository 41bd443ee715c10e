#pragma once

// The environment of the process: variables, its own path and id, known folders, clocks. All texts
// are UTF-8.

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "core/path.h"

namespace zul {

/// The value of an environment variable. Empty when it is unset or is not valid text.
[[nodiscard]] std::string GetEnvironmentPath(std::string_view name);

/// The system's id of this process.
[[nodiscard]] std::uint32_t CurrentProcessId();

/// The longest path that Windows supports, in wide characters including the terminator.
inline constexpr std::uint32_t kLongestPathUnits = 32768;

/// Full path of the running executable; empty when the system does not report it or it is longer
/// than `max_units` wide characters including the terminator (GetModuleFileNameW's convention).
[[nodiscard]] fs::Path CurrentExecutablePath(std::uint32_t max_units = kLongestPathUnits);

/// The system's folder for temporary files, with its trailing separators. Empty on failure, and for
/// a path of 260 or more wide characters.
[[nodiscard]] fs::Path TempDirectory();

/// Milliseconds since the system was started.
[[nodiscard]] std::uint64_t TickCountMs();

/// The system clock in milliseconds since 1970-01-01 UTC; 0 for an earlier time.
[[nodiscard]] inline std::uint64_t UnixTimeMs() {
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(since_1970).count();
  return ms > 0 ? static_cast<std::uint64_t>(ms) : 0;
}

/// A high-resolution counter without a fixed unit, for unique names only.
[[nodiscard]] std::uint64_t PerformanceCounter();

/// `time` of the system clock as local calendar time.
[[nodiscard]] std::tm LocalCalendarTime(std::time_t time);

/// `time` of the system clock as calendar time in UTC.
[[nodiscard]] std::tm UtcCalendarTime(std::time_t time);

/// The user's folder for roaming application data (CSIDL_APPDATA). When the system cannot determine
/// it there is no value, and `*hresult` receives the system's code.
[[nodiscard]] std::optional<fs::Path> RoamingAppDataDirectory(std::uint32_t* hresult);

}  // namespace zul
