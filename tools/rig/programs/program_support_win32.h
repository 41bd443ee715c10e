#pragma once

// Options from the command line and lines on standard output, for the rig's programs.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zul::rig {

/// The exit code for wrong arguments (EX_USAGE of sysexits.h).
inline constexpr int kUsageExit = 64;

using Arguments = std::vector<std::string>;

/// This process's arguments as UTF-8, without the program name.
[[nodiscard]] Arguments CommandLineArguments();

/// The value after "--name="; empty for "--name" alone; no value when the option is absent.
[[nodiscard]] std::optional<std::string> OptionValue(const Arguments& arguments,
                                                     std::string_view name);

/// The decimal number after "--name=", or 0.
[[nodiscard]] unsigned OptionNumber(const Arguments& arguments, std::string_view name);

/// Converts UTF-8 to wide text. Malformed text becomes empty.
[[nodiscard]] std::wstring Widen(std::string_view text);

/// Writes a line, ended by one line feed, to standard output without buffering.
void PrintLine(std::string_view line);

}  // namespace zul::rig
