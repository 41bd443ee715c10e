#pragma once

#include <chrono>
#include <memory>

namespace zul {

/// A lock with a condition that threads wait for under it. In place of std::condition_variable:
/// that of MinGW waits with an object of the kernel even for the shortest time.
///
/// `lock` and `unlock` are for std::lock_guard and std::unique_lock.
class Monitor {
 public:
  Monitor();
  ~Monitor();
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  void lock();
  void unlock();

  /// Unlocks, waits for a notification, and locks again. Also returns without one, at any time.
  void Wait();

  /// As `Wait`, for at most `limit`.
  void WaitFor(std::chrono::milliseconds limit);

  /// Ends one wait, or all waits.
  void NotifyOne();
  void NotifyAll();

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace zul
