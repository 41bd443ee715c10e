#include "core/ordered_work.h"

#include <system_error>

namespace zul {

WorkerThreads::~WorkerThreads() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void WorkerThreads::Run(std::function<void()> work) {
  if (threads_.size() < most_) AddThread();
  if (threads_.empty()) return work();
  {
    const std::lock_guard lock(mutex_);
    queue_.push_back(std::move(work));
  }
  changed_.notify_one();
}

void WorkerThreads::AddThread() {
  try {
    threads_.emplace_back([this] { RunQueue(); });
  } catch (const std::system_error&) {
    // The threads that there are do the work.
  }
}

void WorkerThreads::RunQueue() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return ending_ || !queue_.empty(); });
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
