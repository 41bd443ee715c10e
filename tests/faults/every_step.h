#pragma once

// The steps of a sample update: the calls that it makes when nothing goes wrong.

#include <string>
#include <vector>

#include "tests/faults/faulty_file_layer.h"
#include "tests/faults/sample_update.h"

namespace zul::test {

[[nodiscard]] std::vector<FileCall> CallsOf(Scenario scenario);

/// The first step behind so many replacements of a file.
[[nodiscard]] unsigned StepBehind(const std::vector<FileCall>& calls, unsigned replacements);

/// "step 12 of 340: WriteSome app.exe"
[[nodiscard]] std::string Describe(const std::vector<FileCall>& calls, unsigned at);

/// Set by QORVA_FAULTS=all. Otherwise each step meets every other error only, and under Wine, where
/// one takes a hundred times as long, not every step is tried.
[[nodiscard]] bool TriesEverything();
[[nodiscard]] unsigned StepWidth();

}  // namespace zul::test
