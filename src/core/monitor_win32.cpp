#include "core/monitor.h"

#include <windows.h>

namespace zul {

struct Monitor::State {
  SRWLOCK lock = SRWLOCK_INIT;
  CONDITION_VARIABLE condition = CONDITION_VARIABLE_INIT;
};

Monitor::Monitor() : state_(std::make_unique<State>()) {}
Monitor::~Monitor() = default;

void Monitor::lock() {
  ::AcquireSRWLockExclusive(&state_->lock);
}

void Monitor::unlock() {
  ::ReleaseSRWLockExclusive(&state_->lock);
}

void Monitor::Wait() {
  ::SleepConditionVariableSRW(&state_->condition, &state_->lock, INFINITE, 0);
}

void Monitor::WaitFor(std::chrono::milliseconds limit) {
  ::SleepConditionVariableSRW(&state_->condition, &state_->lock, static_cast<DWORD>(limit.count()),
                              0);
}

void Monitor::NotifyOne() {
  ::WakeConditionVariable(&state_->condition);
}

void Monitor::NotifyAll() {
  ::WakeAllConditionVariable(&state_->condition);
}

}  // namespace zul
