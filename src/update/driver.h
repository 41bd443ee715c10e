#pragma once

// The spine of the updater: one update from validation to restart, on one thread, as a straight
// sequence of stages. A stage hands on a path or a record, or ends the run through a failure tail.

namespace zul {

/// Runs what the arguments ask for and returns the exit code: 0 done, 2 failure, 18 the
/// installation must migrate to the installer. Blocks until the end of the run, message boxes
/// included.
[[nodiscard]] int RunUpdateDriver(int argc, const wchar_t* const* argv);

}  // namespace zul
