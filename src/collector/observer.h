#pragma once

// The observing side of the collector: the same executable, started with --observe, and the checks
// on its input.

#include <array>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>

namespace zul {

/// Runs an observer until the observed process has ended. Takes the process's own arguments: the
/// program, --observe, and the four inherited handles in decimal. Returns the exit code: 0 when the
/// end of the observed process was recorded, 64 for bad arguments, 65 for a block, process or
/// folder that does not match, 66 for another build, 67 for a failed wait, 68 for a record that
/// could not be committed. When a capture takes too long, a watchdog ends the process with exit
/// code 73. Defined on Windows only.
[[nodiscard]] int RunObserver(int argc, wchar_t* const* argv);

/// The four handle values in an observer's arguments. Nothing when there are not six arguments, or
/// when one of the last four is not 1 to 32 decimal digits, is 0, or has all bits set.
[[nodiscard]] std::optional<std::array<std::uintptr_t, 4>> ParseObserverArguments(
    int argc, const wchar_t* const* argv);

/// True when a session's metadata names this executable's build in all five parts. The block of
/// another build may have another layout.
[[nodiscard]] bool IsOfThisBuild(const nlohmann::json& metadata);

}  // namespace zul
