#pragma once

// The steps of a sample update: the calls of a run in which nothing fails.

#include <functional>

#include "tests/faults/faulty_file_layer.h"
#include "tests/faults/sample_update.h"

namespace zul::test {

/// Some steps of a scenario, by the number of files that are replaced before them.
struct Steps {
  const char* name;
  Scenario scenario;
  unsigned from_replaced = 0;
  unsigned to_replaced = ~0u;  ///< these are left out
};

/// True with QORVA_FAULTS=all. Otherwise under Wine, where a step takes a hundred times as long,
/// one of 17 steps is tried.
[[nodiscard]] bool TriesEverything();

/// Calls `test` with each of the steps until an assertion fails. Messages name the step.
void ForEachStep(const Steps& steps, const std::function<void(const FileCall& step)>& test);

}  // namespace zul::test
