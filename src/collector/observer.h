#pragma once

// The observing side of the collector: the same executable, started with --observe, and the checks
// on its input.

#include <array>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace zul {

/// Runs an observer until the observed process has ended. Takes the process's own arguments: the
/// program, --observe, and the four inherited handles in decimal. Returns the exit code: 0 when the
/// end of the observed process was recorded, 64 for bad arguments, 65 for a block, process or
/// folder that does not match, 66 for another build, 67 for a failed wait, 68 for a record that
/// could not be committed. When a capture takes too long, a watchdog ends the process with exit
/// code 73. Defined on Windows only.
[[nodiscard]] int RunObserver(int argc, wchar_t* const* argv);

/// An observer's arguments as narrow text: the program, --observe, and four handles in decimal.
using ObserverArguments = std::array<std::string, 6>;

/// The arguments with which an observer may start. Nothing when there are not six, or when one of
/// the last four has more than 32 characters or another character than a digit.
[[nodiscard]] std::optional<ObserverArguments> NarrowObserverArguments(int argc,
                                                                       const wchar_t* const* argv);

/// The four handle values in an observer's arguments. Nothing when the second is not --observe, or
/// when one of the last four is not a number, is 0, or has all bits set.
[[nodiscard]] std::optional<std::array<std::uintptr_t, 4>> ParseObserverHandles(
    const ObserverArguments& arguments);

/// True when a session's metadata names this executable's build in all five parts. The block of
/// another build may have another layout.
[[nodiscard]] bool IsOfThisBuild(const nlohmann::json& metadata);

}  // namespace zul
