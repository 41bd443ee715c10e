#pragma once

// Long operations on the thread that owns the window. An operation calls back between its pieces;
// a single system call that may block for long runs on a second thread.

#include <chrono>
#include <functional>

namespace zul {

/// A long operation calls it repeatedly, so that its caller can keep a window responsive. May be
/// empty. The calls are made on the thread that called the operation.
using KeepAlive = std::function<void()>;

/// The time between two calls while one system call, or another thread, is waited for.
inline constexpr std::chrono::milliseconds kKeepAlivePeriod{20};

/// Runs `work` and returns when it has ended. An exception of `work` reaches the caller. With a
/// `keep_alive`, `work` runs on a thread of its own, and `keep_alive` is called once per
/// `kKeepAlivePeriod`. Without one, or when the system cannot create a thread, `work` runs on the
/// calling thread. For calls that may take longer than a window may fail to respond; the thread
/// itself costs time too.
void RunKeepingAlive(const std::function<void()>& work, const KeepAlive& keep_alive);

/// Blocks for `duration`. Calls `keep_alive`, which may be empty, once per `kKeepAlivePeriod`.
void SleepKeepingAlive(std::chrono::milliseconds duration, const KeepAlive& keep_alive);

}  // namespace zul
