#pragma once

// The message queue of the update's thread, for waits and long operations on it. Windows only.

#include <cstdint>

namespace zul {

/// Handles the messages in this thread's queue until it is empty; never blocks. WM_QUIT does not
/// end the run. It is removed and remembered, because in the queue it would turn every wait for
/// input into a busy loop and close the next message box at once.
void PumpPendingMessages();

/// Posts the remembered WM_QUIT, if there is one, for a message loop that runs after the update.
void RepostPendingQuit();

/// Handles messages until `handle` (of a kernel object) is signalled. False when `timeout_ms` has
/// passed first, or when the wait fails.
bool PumpUntilSignalled(void* handle, std::uint32_t timeout_ms);

/// Handles messages for `duration_ms`.
void PumpFor(std::uint32_t duration_ms);

}  // namespace zul
