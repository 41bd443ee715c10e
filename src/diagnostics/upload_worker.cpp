#include "diagnostics/upload_worker.h"

#include <string>
#include <utility>

#include "core/logger.h"
#include "diagnostics/diagnostic_names.h"

namespace zul {

namespace {

void Log(LogLevel level, std::string_view text, std::chrono::milliseconds timeout,
         std::string_view rest) {
  GetLogger().Log(LogCategory::kDiagnostics, level, text, std::to_string(timeout.count()), rest);
}

}  // namespace

void UploadWorker::Start() {
  std::thread finished;
  {
    const std::scoped_lock lock(mutex_);
    if (running_) {
      wanted_again_ = true;
      return;
    }
    finished = std::exchange(thread_, std::thread());
    // Here and not by the thread, which a Stop may overtake.
    cancel_ = false;
    wanted_again_ = false;
    running_ =
        RunGuarded("upload worker start", [this] { thread_ = std::thread([this] { Run(); }); });
  }
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
  if (!owned.joinable()) {
    Log(LogLevel::kWarn, "Diagnostics uploader drain timed out after ", timeout,
        " ms; cancellation requested but no owned upload thread was available to join.");
    return;
  }
  Log(LogLevel::kWarn, "Diagnostics uploader drain timed out after ", timeout,
      " ms; requesting cancellation and joining the owned upload worker.");
  owned.join();
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kInfo,
                  "Diagnostics uploader cancellation completed; owned upload worker joined.");
}

}  // namespace zul
