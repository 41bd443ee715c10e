#pragma once

// One background thread that does one job, again when it was asked for meanwhile. Inside the room
// only.
//
// Absent until the first Start; runs until the job is through with nobody asking for more; finished
// until the next Start, which begins a new thread, or Stop, which joins it.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace zul {

/// Any member may be called from any thread but the worker's own, which may call Start.
class UploadWorker {
 public:
  /// Ends early when the flag is set. What it throws is a log line.
  using Job = std::function<void(const std::atomic<bool>& cancel)>;

  explicit UploadWorker(Job job) : job_(std::move(job)) {}
  /// Cancels and joins.
  ~UploadWorker() { Stop(std::chrono::milliseconds(0)); }
  UploadWorker(const UploadWorker&) = delete;
  UploadWorker& operator=(const UploadWorker&) = delete;

  /// Starts the thread, or has the running one do the job once more. A thread that cannot be
  /// started is a log line.
  void Start();

  /// Waits for the end up to `timeout`, then sets the flag and waits for it without limit.
  void Stop(std::chrono::milliseconds timeout);

 private:
  void Run();

  const Job job_;
  std::mutex mutex_;               ///< guards what follows
  std::condition_variable ended_;  ///< signalled when `running_` becomes false
  std::thread thread_;             ///< joinable until somebody has taken it to join it
  bool running_ = false;
  bool wanted_again_ = false;
  std::atomic<bool> cancel_{false};  ///< set under the lock, read by the job without it
};

}  // namespace zul
