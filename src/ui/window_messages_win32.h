#pragma once

// Messages that must not reach the system's window procedures. For _win32.cpp files only.
//
// Every process of the user may post and send messages to the update's windows. The default
// handling of some messages runs a modal loop of the system (a move, a menu), which would stop the
// update on this thread for as long as the loop lasts. The default handling of others follows a
// pointer in the message. The system copies the data of a sent message below WM_USER and refuses to
// post one with a pointer, with a few exceptions. The update needs none of these messages.

#include <windows.h>

namespace zul {

/// True for a message that a window of the update ignores. `wparam` is that of the message.
[[nodiscard]] bool IsRefusedMessage(UINT message, WPARAM wparam);

/// True for a message that only the creation or the destruction of a window may send. From another
/// process it would make a window release what it still uses.
[[nodiscard]] bool IsLifeMessage(UINT message);

}  // namespace zul
