#pragma once

// The updater started by hand: hand over to the application, or start it.

namespace zul {

/// Shows the update screen of the application that runs from here, starting it if need be; tells
/// the user to use it when that fails, and an archive copy to migrate. Returns the exit code.
[[nodiscard]] int RunWithoutRequest();

}  // namespace zul
