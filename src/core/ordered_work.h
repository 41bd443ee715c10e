#pragma once

// Work that overlaps with that of the calling thread. Pieces of work go to a few other threads, and
// their results come back in the order of the pieces.

#include <chrono>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "core/keep_alive.h"
#include "core/monitor.h"

namespace zul {

/// A few threads that run what is handed to them, in its order. `Run` and the destructor are called
/// by one thread.
class WorkerThreads {
 public:
  /// `most` is the number of threads. Each `Run` creates one until there are that many.
  explicit WorkerThreads(unsigned most) : most_(most) {}
  /// Returns when everything that was handed over has ended.
  ~WorkerThreads();
  WorkerThreads(const WorkerThreads&) = delete;
  WorkerThreads& operator=(const WorkerThreads&) = delete;

  /// Hands `work`, which must not throw, to one of the threads. Runs it at once on the calling
  /// thread when the system has created none.
  void Run(std::function<void()> work);

 private:
  void AddThread();
  void RunQueue();

  const unsigned most_;
  std::vector<std::thread> threads_;
  Monitor monitor_;  // of the rest
  std::deque<std::function<void()>> queue_;
  bool ending_ = false;
};

/// Pieces of work with a result each, at most `bound` at a time. Used by one thread.
///
/// The destructor returns when every piece has ended, and drops the results that were not taken.
template <typename Result>
class OrderedWork {
 public:
  /// `keep_alive` is called while `Take` waits; it may be empty.
  OrderedWork(unsigned threads, std::size_t bound, KeepAlive keep_alive)
      : bound_(bound), keep_alive_(std::move(keep_alive)), threads_(threads) {}

  /// True when no piece is left whose result can be taken.
  [[nodiscard]] bool empty() const { return pieces_.empty(); }

  /// True when a result must be taken before the next piece can be handed over.
  [[nodiscard]] bool full() const { return pieces_.size() >= bound_; }

  /// True when `Take` would not wait.
  [[nodiscard]] bool IsReady() {
    const std::lock_guard lock(monitor_);
    return !empty() && pieces_.front()->has_ended;
  }

  /// Hands over `work`, which returns a Result and may be movable only. Runs it at once when the
  /// system cannot create a thread. Call it only while there is room. Throws when memory runs out.
  template <typename Work>
  void Hand(Work work) {
    auto piece = std::make_shared<Piece>();
    auto shared_work = std::make_shared<Work>(std::move(work));
    pieces_.push_back(piece);
    try {
      threads_.Run([this, piece = std::move(piece), shared_work = std::move(shared_work)] {
        Perform(*shared_work, *piece);
      });
    } catch (...) {
      pieces_.pop_back();  // it would never end
      throw;
    }
  }

  /// The result of the oldest piece that is left; waits for its end. An exception of the piece
  /// reaches the caller. Call it only while there is a piece.
  [[nodiscard]] Result Take() {
    const std::shared_ptr<Piece> piece = std::move(pieces_.front());
    pieces_.pop_front();
    std::unique_lock lock(monitor_);
    for (auto due = Clock::now() + kKeepAlivePeriod; !piece->has_ended;) {
      monitor_.WaitFor(kKeepAlivePeriod);
      if (!keep_alive_ || Clock::now() < due) continue;
      lock.unlock();
      keep_alive_();
      lock.lock();
      due = Clock::now() + kKeepAlivePeriod;
    }
    // Moved out, so that this thread is the one that destroys it.
    if (std::exception_ptr exception = std::exchange(piece->exception, nullptr)) {
      std::rethrow_exception(std::move(exception));
    }
    return std::move(*piece->result);
  }

 private:
  using Clock = std::chrono::steady_clock;

  struct Piece {
    std::optional<Result> result;
    std::exception_ptr exception;
    bool has_ended = false;
  };

  template <typename Work>
  void Perform(Work& work, Piece& piece) {
    std::optional<Result> result;
    std::exception_ptr exception;
    try {
      result.emplace(work());
    } catch (...) {
      exception = std::current_exception();
    }
    {
      const std::lock_guard lock(monitor_);
      piece.result = std::move(result);
      piece.exception = std::move(exception);
      piece.has_ended = true;
    }
    monitor_.NotifyOne();
  }

  const std::size_t bound_;
  const KeepAlive keep_alive_;
  std::deque<std::shared_ptr<Piece>> pieces_;
  Monitor monitor_;        // of the contents of the pieces
  WorkerThreads threads_;  // the first member to be destroyed
};

}  // namespace zul
