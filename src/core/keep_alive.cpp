#include "core/keep_alive.h"

#include <future>
#include <system_error>
#include <thread>

namespace zul {

namespace {

/// Starts `work` on a new thread. Not valid when the system cannot create one.
std::future<void> Begin(const std::function<void()>& work) {
  try {
    return std::async(std::launch::async, std::cref(work));
  } catch (const std::system_error&) {
    return {};
  }
}

}  // namespace

void RunKeepingAlive(const std::function<void()>& work, const KeepAlive& keep_alive) {
  std::future<void> done;
  if (keep_alive) done = Begin(work);
  if (!done.valid()) return work();
  while (done.wait_for(kKeepAlivePeriod) != std::future_status::ready) keep_alive();
  done.get();
}

void SleepKeepingAlive(std::chrono::milliseconds duration, const KeepAlive& keep_alive) {
  const auto end = std::chrono::steady_clock::now() + duration;
  while (keep_alive && std::chrono::steady_clock::now() + kKeepAlivePeriod < end) {
    std::this_thread::sleep_for(kKeepAlivePeriod);
    keep_alive();
  }
  std::this_thread::sleep_until(end);
}

}  // namespace zul
