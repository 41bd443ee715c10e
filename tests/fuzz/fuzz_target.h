#pragma once

// A fuzz target is one file that defines Run. libFuzzer calls it in the fuzz build; in every other
// build replay_main.cpp calls it with each seed and each past finding.

#include <string_view>
#include <vector>

namespace zul::fuzz {

/// One run of the target on any bytes.
void Run(std::string_view input);

/// Ends the process when a promise is broken, and prints the promise to stderr.
void Require(bool holds, std::string_view promise);

/// The pieces of `text` between the separators, empty ones included. Views into `text`.
[[nodiscard]] std::vector<std::string_view> SplitAt(std::string_view text,
                                                    std::string_view separators);

}  // namespace zul::fuzz
