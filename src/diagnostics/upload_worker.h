#pragma once

// One background thread that runs one job, and runs it again if asked to meanwhile.
//
// No thread exists until the first Start. It ends when the job is finished and no further run was
// asked for. The next Start begins a new thread; Stop joins the thread.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace zul {

/// Thread-safe; the job itself may call Start only.
class UploadWorker {
 public:
  /// Must end early when `cancel` is set. An exception from it is logged.
  using Job = std::function<void(const std::atomic<bool>& cancel)>;

  explicit UploadWorker(Job job) : job_(std::move(job)) {}
  /// Cancels and joins.
  ~UploadWorker() { Stop(std::chrono::milliseconds(0)); }
  UploadWorker(const UploadWorker&) = delete;
  UploadWorker& operator=(const UploadWorker&) = delete;

  /// Starts the thread, or makes the running one repeat the job. A thread that cannot be started is
  /// logged.
  void Start();

  /// Waits for the end up to `timeout`. After that sets `cancel` and waits without limit.
  void Stop(std::chrono::milliseconds timeout);

 private:
  void Run();

  const Job job_;
  std::mutex mutex_;               ///< guards the members below
  std::condition_variable ended_;  ///< signalled when `running_` becomes false
  std::thread thread_;             ///< joinable until a caller takes it to join it
  bool running_ = false;
  bool wanted_again_ = false;
  std::atomic<bool> cancel_{false};  ///< set under the lock, read by the job without it
};

}  // namespace zul
