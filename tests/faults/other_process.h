#pragma once

// A sample update in a process of its own, which may end in the middle of it.

#include "tests/faults/faulty_file_layer.h"
#include "tests/faults/sample_update.h"

namespace zul::test {

/// The exit code of a process that ended by plan.
inline constexpr int kDied = 77;

/// Ends this process here and now: nothing is cleaned up, nothing is written.
[[noreturn]] void EndThisProcess();

/// Runs the update in `folder` with a fault planned and waits. Returns kDied, 0 when the update
/// succeeded, 1 when it failed, and something else when the process went down by itself.
[[nodiscard]] int RunInOtherProcess(Scenario scenario, const FaultPlan& plan,
                                    const fs::Path& folder);

/// To be called first in main: where this process is such another one, it never returns.
void RunIfThisIsTheOther(int argc, char** argv);

}  // namespace zul::test
