#pragma once

// What the rig's programs share: options from the command line and lines on standard output.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zul::rig {

/// The exit code of wrong arguments, as sysexits.h has it.
inline constexpr int kUsageExit = 64;

using Arguments = std::vector<std::string>;

/// This process's arguments as UTF-8, without the program's name.
[[nodiscard]] Arguments CommandLineArguments();

/// What stands behind "--name="; empty for a plain "--name"; nothing when neither is there.
[[nodiscard]] std::optional<std::string> OptionValue(const Arguments& arguments,
                                                     std::string_view name);

/// The decimal number behind "--name=", or 0.
[[nodiscard]] unsigned OptionNumber(const Arguments& arguments, std::string_view name);

/// UTF-8 as wide text; malformed text becomes empty.
[[nodiscard]] std::wstring Widen(std::string_view text);

/// Writes a line to standard output at once, ended by one line feed.
void PrintLine(std::string_view line);

}  // namespace zul::rig
