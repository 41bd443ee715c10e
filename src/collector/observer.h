#pragma once

// The observing side of the collector: the same executable, started with --observe.

namespace zul {

/// Runs an observer to its end, from the process's own arguments: the program, --observe, and the
/// four inherited handles in decimal. Returns the exit code: 0 when the end of the observed process
/// was recorded, 64 for bad arguments, 65 for a block, process or folder that does not match, 66
/// for another build, 67 for a failed wait, 68 for a record that could not be committed. The
/// watchdog ends the process itself, with 73.
[[nodiscard]] int RunObserver(int argc, wchar_t* const* argv);

}  // namespace zul
