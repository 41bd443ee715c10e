#include "diagnostics/upload_worker.h"

#include <string>
#include <utility>

#include "diagnostics/diagnostics_log.h"

namespace zul {

void UploadWorker::Start() {
  std::thread finished;
  std::string failure;
  {
    const std::scoped_lock lock(mutex_);
    if (running_) {
      wanted_again_ = true;
      return;
    }
    finished = std::exchange(thread_, std::thread());
    // The new thread must not clear the flag: a Stop may have set it by then.
    cancel_ = false;
    wanted_again_ = false;
    try {
      thread_ = start_thread_([this] { Run(); });
      running_ = true;
    } catch (const std::exception& caught) {
      failure = caught.what();
    }
  }
  // Logged without the lock: a receiver of log lines may call this object.
  if (!failure.empty()) LogDiagnosticsFailure("upload worker start", failure);
  if (finished.joinable()) finished.join();
}

void UploadWorker::Run() {
  for (;;) {
    RunGuarded("upload worker callback", [this] { job_(cancel_); });
    const std::scoped_lock lock(mutex_);
    if (!std::exchange(wanted_again_, false) || cancel_) {
      running_ = false;
      ended_.notify_all();
      return;
    }
  }
}

void UploadWorker::Stop(std::chrono::milliseconds timeout) {
  std::thread owned;
  {
    std::unique_lock lock(mutex_);
    const bool ended = ended_.wait_for(lock, timeout, [this] { return !running_; });
    owned = std::exchange(thread_, std::thread());
    if (ended) {
      lock.unlock();
      if (owned.joinable()) owned.join();
      return;
    }
    cancel_ = true;
  }
  const std::string timed_out =
      "Diagnostics uploader drain timed out after " + std::to_string(timeout.count()) + " ms; ";
  if (!owned.joinable()) {
    LogDiagnostics(LogLevel::kWarn, timed_out,
                   "cancellation requested but no owned upload thread was available to join.");
    return;
  }
  LogDiagnostics(LogLevel::kWarn, timed_out,
                 "requesting cancellation and joining the owned upload worker.");
  owned.join();
  LogDiagnostics(LogLevel::kInfo,
                 "Diagnostics uploader cancellation completed; owned upload worker joined.");
}

}  // namespace zul
