#pragma once

// The process-wide log: human-readable lines in a dated file, the newest of them in memory for
// reports, and every line to registered sinks. Filtering is set once, from the environment. Logging
// never fails its caller: a file that cannot be written costs only the file.
//
// A line reads `12:30:05 [WARN ] [updater] text`, in local time. Without a Configure that succeeded
// lines still go to memory and to sinks.

#include <array>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/file_layer.h"
#include "core/log_filter.h"

namespace zul {

/// Receives each line, without its line end. Called outside the logger's lock, so it may log. What
/// it throws is dropped.
using LogSink = std::function<void(LogCategory, LogLevel, const std::string& line)>;

/// Any member may be called from any thread.
class Logger {
 public:
  static constexpr std::size_t kMaxLineBytes = 65536;
  static constexpr std::size_t kMaxRecentLines = 5000;
  static constexpr std::size_t kMaxRecentBytes = 4194304;
  static constexpr std::uint64_t kRotationBytes = 52428800;
  static constexpr int kRotatedFiles = 5;

  /// Seconds since 1970, as std::time gives them.
  using Clock = std::function<std::time_t()>;

  /// A logger of its own beside the process-wide one; `clock` is the system's when empty.
  explicit Logger(Clock clock = {});

  /// Sets the file output to `directory` (UTF-8; empty disables it) and opens today's file there,
  /// `<file_stem>_<YYYYMMDD>.log`, rotating one that has reached kRotationBytes. True when the file
  /// is open; otherwise each further line tries again.
  bool Configure(std::string_view directory, std::string_view file_stem);

  /// Full path of the open log file, UTF-8; empty when there is none.
  [[nodiscard]] std::string CurrentPath() const;

  /// Takes the thresholds from QORVA_LOG_FILTER or, when that is unset, QORVA_LOG_CATEGORIES. They
  /// can only narrow the output: nothing below INFO is ever written.
  void ApplyFilterFromEnvironment();

  /// Logs the concatenation of the pieces, in the category kGeneral and without a category in the
  /// line. Below the level nothing is built.
  template <std::convertible_to<std::string_view>... Pieces>
  void Log(LogLevel level, const Pieces&... pieces) {
    if (!Passes(LogCategory::kGeneral, level)) return;
    Compose(std::nullopt, level, {std::string_view(pieces)...});
  }
  /// The same, with the category in the line.
  template <std::convertible_to<std::string_view>... Pieces>
  void Log(LogCategory category, LogLevel level, const Pieces&... pieces) {
    if (!Passes(category, level)) return;
    Compose(category, level, {std::string_view(pieces)...});
  }

  /// Hands a finished line to sinks, memory and file, without asking the filter. An empty line goes
  /// to the sinks only.
  void Write(LogCategory category, LogLevel level, std::string line);

  void AddSink(LogSink sink);

  /// The newest `count` lines, oldest first; 0 or more than there are gives all.
  [[nodiscard]] std::vector<std::string> RecentLines(std::size_t count) const;

  [[nodiscard]] bool Passes(LogCategory category, LogLevel level) const {
    return level >= kMinimumLevel &&
           level >= category_levels_[LogCategoryIndex(category)].load(std::memory_order_relaxed);
  }
  void set_always_flush(bool always_flush) { always_flush_.store(always_flush); }
  [[nodiscard]] std::uint64_t flush_count() const { return flush_count_.load(); }

 private:
  using Sinks = std::vector<LogSink>;

  /// The floor of every line. Nothing lowers it, so DEBUG lines are never written.
  static constexpr LogLevel kMinimumLevel = LogLevel::kInfo;

  void Compose(std::optional<LogCategory> category, LogLevel level,
               std::initializer_list<std::string_view> pieces);
  [[nodiscard]] std::shared_ptr<const Sinks> CurrentSinks() const;
  // The following need the lock.
  void AppendToFile(std::string& line, bool flush);
  void Remember(std::string line);
  void OpenForDate(std::time_t now, std::string_view date);
  void CloseStream();

  const Clock clock_;
  std::array<std::atomic<LogLevel>, kLogCategoryCount> category_levels_{};
  std::atomic<bool> always_flush_{false};
  std::atomic<std::uint64_t> flush_count_{0};
  std::atomic<bool> has_sinks_{false};  ///< spares lines the lock while nobody listens

  mutable std::mutex mutex_;            ///< guards what follows
  std::shared_ptr<const Sinks> sinks_;  ///< replaced as a whole, so that a copy is a pointer
  fs::File stream_;
  fs::Path directory_;
  std::string file_stem_;
  std::string current_date_;
  std::string current_path_;
  std::deque<std::string> recent_lines_;
  std::size_t recent_bytes_ = 0;
};

/// The process-wide logger, built on first use and alive until the process ends.
[[nodiscard]] Logger& GetLogger();

}  // namespace zul
