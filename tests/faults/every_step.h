#pragma once

// The steps of a sample update: the calls that it makes when nothing goes wrong.

#include <functional>
#include <vector>

#include "tests/faults/faulty_file_layer.h"
#include "tests/faults/sample_update.h"

namespace zul::test {

/// Set by QORVA_FAULTS=all. Otherwise each step meets every other error only, and under Wine, where
/// one takes a hundred times as long, not every step is tried.
[[nodiscard]] bool TriesEverything();

/// Calls `test` with the calls of the scenario and the number of each step that lies behind `from`
/// replacements of a file and not behind `to`, until an assertion fails. Messages give the name and
/// the step.
void ForEachStep(const char* name, Scenario scenario, unsigned from, unsigned to,
                 const std::function<void(const std::vector<FileCall>& calls, unsigned at)>& test);

}  // namespace zul::test
