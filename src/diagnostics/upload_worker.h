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

  /// Starts a thread that runs `body`. Throws when the system has none.
  using ThreadStarter = std::function<std::thread(std::function<void()> body)>;

  explicit UploadWorker(Job job, ThreadStarter start_thread = StartThread)
      : job_(std::move(job)), start_thread_(std::move(start_thread)) {}
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
  static std::thread StartThread(std::function<void()> body) {
    return std::thread(std::move(body));
  }
  void Run();

  const Job job_;
  const ThreadStarter start_thread_;
  std::mutex mutex_;               ///< guards the members below
  std::condition_variable ended_;  ///< signalled when `running_` becomes false
  std::thread thread_;             ///< joinable until a caller takes it to join it
  bool running_ = false;
  bool wanted_again_ = false;
  std::atomic<bool> cancel_{false};  ///< set under the lock, read by the job without it
};

}  // namespace zul
