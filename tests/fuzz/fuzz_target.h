#pragma once

// What a fuzz target is made of. A target is one file that defines Run; libFuzzer feeds it where it
// is linked, elsewhere replay_main.cpp does with the files of the corpus and of past findings.

#include <string_view>
#include <vector>

namespace zul::fuzz {

/// One run of the target over any bytes at all. Whatever does not hold ends the process.
void Run(std::string_view input);

/// Ends the process when a promise does not hold, with the sentence that was broken on stderr.
void Require(bool holds, std::string_view promise);

/// The pieces of `text` between any of the separators, empty ones included. Views into `text`.
[[nodiscard]] std::vector<std::string_view> SplitAt(std::string_view text,
                                                    std::string_view separators);

}  // namespace zul::fuzz
