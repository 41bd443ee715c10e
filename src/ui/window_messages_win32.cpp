#include "ui/window_messages_win32.h"

#include <algorithm>
#include <array>

namespace zul {

namespace {

struct MessageRange {
  UINT first;
  UINT last;
};

constexpr MessageRange kRefused[] = {
    // Modal loops.
    {WM_CONTEXTMENU, WM_CONTEXTMENU},
    {WM_NCLBUTTONDOWN, WM_NCMBUTTONDBLCLK},  // the caption's own handling comes first
    {WM_NCXBUTTONDOWN, WM_NCXBUTTONDBLCLK},
    {0x0313, 0x0313},  // not documented: the taskbar asks for the system menu
    // Pointers.
    {0x0090, 0x0095},  // not documented: drawing of a menu bar
    {WM_IME_STARTCOMPOSITION, WM_IME_KEYLAST},
    {WM_IME_SETCONTEXT, WM_IME_KEYUP},
    {0x02E4, 0x02E4},  // WM_GETDPISCALEDSIZE
    {WM_GETTITLEBARINFOEX, WM_GETTITLEBARINFOEX},
    {WM_USER, ~UINT{0}},  // the system checks nothing in these, and a button knows some (BCM_*)
};

/// The commands that a window without a menu needs. Those that run a modal loop (SC_MOVE, SC_SIZE,
/// SC_KEYMENU, SC_MOUSEMENU, SC_VSCROLL, SC_CONTEXTHELP and others) are not among them.
constexpr std::array<WPARAM, 6> kAcceptedCommands = {SC_MINIMIZE, SC_RESTORE,    SC_CLOSE,
                                                     SC_TASKLIST, SC_SCREENSAVE, SC_MONITORPOWER};

}  // namespace

bool IsRefusedMessage(UINT message, WPARAM wparam) {
  if (message == WM_SYSCOMMAND) {
    // The system uses the low four bits itself.
    const WPARAM command = wparam & 0xFFF0;
    return std::find(kAcceptedCommands.begin(), kAcceptedCommands.end(), command) ==
           kAcceptedCommands.end();
  }
  return std::any_of(std::begin(kRefused), std::end(kRefused),
                     [message](const MessageRange& range) {
                       return range.first <= message && message <= range.last;
                     });
}

bool IsLifeMessage(UINT message) {
  return message == WM_NCCREATE || message == WM_CREATE || message == WM_DESTROY ||
         message == WM_NCDESTROY;
}

}  // namespace zul
