#include "core/ordered_work.h"

#include <system_error>

namespace zul {

WorkerThreads::~WorkerThreads() {
  {
    const std::lock_guard lock(monitor_);
    ending_ = true;
  }
  monitor_.NotifyAll();
  for (std::thread& thread : threads_) thread.join();
}

void WorkerThreads::Run(std::function<void()> work) {
  if (threads_.size() < most_) AddThread();
  if (threads_.empty()) return work();
  {
    const std::lock_guard lock(monitor_);
    queue_.push_back(std::move(work));
  }
  monitor_.NotifyOne();
}

void WorkerThreads::AddThread() {
  try {
    threads_.emplace_back([this] { RunQueue(); });
  } catch (const std::system_error&) {
    // The threads that there are do the work.
  }
}

void WorkerThreads::RunQueue() {
  std::unique_lock lock(monitor_);
  for (;;) {
    while (!ending_ && queue_.empty()) monitor_.Wait();
    if (queue_.empty()) return;
    std::function<void()> work = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    work();
    work = nullptr;
    lock.lock();
  }
}

}  // namespace zul
