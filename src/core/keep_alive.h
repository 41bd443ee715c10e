#pragma once

// Long work on the thread that also owns the window: the work calls back between its pieces, and a
// single call of the system that may block for long goes to a thread of its own meanwhile.

#include <functional>

namespace zul {

/// What long operations call again and again, so that their caller can keep a window alive. May be
/// empty. It is always called on the thread of the operation's caller.
using KeepAlive = std::function<void()>;

/// Runs `work` to its end and returns then; what it throws comes through. With a `keep_alive`, the
/// work has a thread of its own and `keep_alive` is called about every 20 ms meanwhile; without
/// one, or when no thread is to be had, the work runs on the calling thread. Costs the making of a
/// thread: for calls that can take longer than a user waits for a window to answer.
void RunKeepingAlive(const std::function<void()>& work, const KeepAlive& keep_alive);

}  // namespace zul
