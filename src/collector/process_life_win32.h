#pragma once

// The creation time of a process, for _win32.cpp files only.

#include <windows.h>

#include <cstdint>
#include <optional>

namespace zul {

/// As GetProcessTimes has it, in units of 100 ns; nothing when the system does not tell.
[[nodiscard]] std::optional<std::uint64_t> CreationTimeOf(HANDLE process);

}  // namespace zul
