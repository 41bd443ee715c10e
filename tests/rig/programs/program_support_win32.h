#pragma once

// What the rig's programs share: options from the command line and lines on standard output.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zul::rig {

/// The exit code of wrong arguments, as sysexits.h has it.
inline constexpr int kUsageExit = 64;

/// The options of a command line, taken one by one; what is left at the end was wrong. A value
/// follows its name as the next argument or behind "=".
class Options {
 public:
  /// Without the program's name.
  explicit Options(std::vector<std::string> arguments) : arguments_(std::move(arguments)) {}

  [[nodiscard]] bool TakeFlag(std::string_view name);
  /// The first value of `name`; a name without a value stays and so counts as wrong.
  [[nodiscard]] std::optional<std::string> TakeValue(std::string_view name);
  /// As TakeValue for decimal digits; anything else stays and so counts as wrong.
  [[nodiscard]] std::optional<std::uint64_t> TakeNumber(std::string_view name);
  /// Two values behind one name.
  [[nodiscard]] std::optional<std::pair<std::string, std::string>> TakePair(std::string_view name);
  /// Whether every argument has been taken.
  [[nodiscard]] bool empty() const { return arguments_.empty(); }

 private:
  std::vector<std::string> arguments_;
};

/// This process's arguments as UTF-8, without the program's name.
[[nodiscard]] std::vector<std::string> CommandLineArguments();

/// UTF-8 as wide text; malformed text becomes empty.
[[nodiscard]] std::wstring Widen(std::string_view text);

/// Writes a line to standard output at once, ended by one line feed.
void PrintLine(std::string_view line);

/// Writes the usage to standard error; returns kUsageExit.
[[nodiscard]] int Usage(std::string_view text);

}  // namespace zul::rig
