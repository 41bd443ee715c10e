#pragma once

// The message queue of the update's thread, for everything that waits or works long on it. Windows
// only.

#include <cstdint>

namespace zul {

/// Handles every message that waits for this thread and returns once none is left; never blocks.
/// A WM_QUIT does not end the run: it is put aside, because left in the queue it would turn every
/// wait for input into a busy loop and close the next message box before anyone has read it.
void PumpPendingMessages();

/// Posts the WM_QUIT that pumps have put aside, if there was one, for whoever runs a message loop
/// around the update.
void RepostPendingQuit();

/// Waits until `handle` (a kernel object's) is signalled, handling messages meanwhile. False when
/// `timeout_ms` has passed, or when it cannot be waited for.
bool PumpUntilSignalled(void* handle, std::uint32_t timeout_ms);

/// Handles messages for `duration_ms`.
void PumpFor(std::uint32_t duration_ms);

}  // namespace zul
