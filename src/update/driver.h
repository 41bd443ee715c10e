#pragma once

// The door of this room: one update from validation to restart, on one thread, as a straight
// sequence of stages. A stage hands on a path or a record, or ends the run through a failure tail.

namespace zul {

struct UpdateWorld;

/// Does what the arguments ask for and returns the exit code: 0 done, 2 failure, 18 the
/// installation must migrate to the installer. With --print-app-version-json it only prints the
/// version; without arguments it opens the update screen of the application. Blocks until the end
/// of the run, message boxes included. Windows only.
[[nodiscard]] int RunUpdateDriver(int argc, const wchar_t* const* argv);

/// The same in a given world (update_world.h), on any system.
[[nodiscard]] int RunUpdateDriver(const UpdateWorld& world, int argc, const wchar_t* const* argv);

/// True when an argument from element 1 on is exactly --print-app-version-json.
[[nodiscard]] bool AsksForVersion(int argc, const wchar_t* const* argv);

}  // namespace zul
