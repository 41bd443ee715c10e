#pragma once

// What a process knows of its surroundings: variables, its own path and id, well-known folders,
// clocks. All texts UTF-8.

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "core/path.h"

namespace zul {

/// The value of an environment variable, or empty when it is unset or cannot be converted.
[[nodiscard]] std::string GetEnvironmentPath(std::string_view name);

[[nodiscard]] std::uint32_t CurrentProcessId();

/// The longest path that Windows handles, in wide characters including the terminator.
inline constexpr std::uint32_t kLongestPathUnits = 32768;

/// Full path of the running executable; empty when the system does not report it or it is longer
/// than `max_units` wide characters including the terminator (GetModuleFileNameW's convention).
[[nodiscard]] fs::Path CurrentExecutablePath(std::uint32_t max_units = kLongestPathUnits);

/// The system's folder for temporary files with its trailing separators, from a buffer of 260 wide
/// characters; empty on failure.
[[nodiscard]] fs::Path TempDirectory();

/// Milliseconds since the system was started.
[[nodiscard]] std::uint64_t TickCountMs();

/// The wall clock in milliseconds since 1970; 0 for a clock that stands before that.
[[nodiscard]] std::uint64_t UnixTimeMs();

/// A high-resolution counter without a fixed unit: only for making names unique.
[[nodiscard]] std::uint64_t PerformanceCounter();

/// Local calendar time of a point of the system clock.
[[nodiscard]] std::tm LocalCalendarTime(std::time_t time);

/// The same in UTC.
[[nodiscard]] std::tm UtcCalendarTime(std::time_t time);

/// The per-user folder for roaming application data. `*hresult` receives the platform's code when
/// it cannot be determined (nothing is returned then).
[[nodiscard]] std::optional<fs::Path> RoamingAppDataDirectory(std::uint32_t* hresult);

}  // namespace zul
