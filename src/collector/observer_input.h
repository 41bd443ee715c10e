#pragma once

// What an observer is given, judged before it is used.

#include <array>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace zul {

/// The arguments of a process that was started to observe, in narrow form: the program's name,
/// --observe, and four texts of at most 32 digits. Nothing when there are not six, or when one of
/// the last four is missing or holds anything else; an empty one passes.
[[nodiscard]] std::optional<std::array<std::string, 6>> NarrowObserverArguments(
    int argc, const wchar_t* const* argv);

/// The four handle values of six arguments, the second of which must be --observe. Decimal; 0 and
/// all ones are no handles.
[[nodiscard]] std::optional<std::array<std::uintptr_t, 4>> ParseObserverArguments(
    int argc, const char* const* argv);

/// True when a session's metadata names this executable's build in all five parts. A block of
/// another build may have another layout.
[[nodiscard]] bool IsOfThisBuild(const nlohmann::json& metadata);

}  // namespace zul
