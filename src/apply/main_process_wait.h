#pragma once

// Waiting for the application's main process to end.

#include <cstdint>
#include <string>

namespace zul {

/// Waits until the process ends or `timeout_ms` has passed. True when it has ended, also when it
/// could not be opened at all. With `pump_messages` the thread's windows stay alive during the
/// wait.
[[nodiscard]] bool WaitForMainProcess(std::uint32_t pid, std::uint32_t timeout_ms,
                                      std::string* error, bool pump_messages);

}  // namespace zul
