#include "core/monitor.h"

#include <condition_variable>
#include <mutex>

namespace zul {

struct Monitor::State {
  std::mutex mutex;
  std::condition_variable_any condition;
};

Monitor::Monitor() : state_(std::make_unique<State>()) {}
Monitor::~Monitor() = default;

void Monitor::lock() {
  state_->mutex.lock();
}

void Monitor::unlock() {
  state_->mutex.unlock();
}

void Monitor::Wait() {
  state_->condition.wait(state_->mutex);
}

void Monitor::WaitFor(std::chrono::milliseconds limit) {
  state_->condition.wait_for(state_->mutex, limit);
}

void Monitor::NotifyOne() {
  state_->condition.notify_one();
}

void Monitor::NotifyAll() {
  state_->condition.notify_all();
}

}  // namespace zul
