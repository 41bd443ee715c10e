#pragma once

// The process-wide log. It writes lines for people to a dated file, keeps the newest lines in
// memory for reports, and passes each line to the registered sinks. The environment sets the filter
// once. Logging never fails its caller: without a file, before `Configure` or when the file cannot
// be written, lines still go to memory and to the sinks.
//
// A line is `12:30:05 [WARN ] [updater] text`, in local time; see docs/formats/log.md.

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

#include "core/file.h"
#include "core/log_filter.h"

namespace zul {

/// Receives each line, without its line end. Called outside the logger's lock, so it may log. An
/// exception from it is ignored.
using LogSink = std::function<void(LogCategory, LogLevel, const std::string& line)>;

/// Thread-safe.
class Logger {
 public:
  // Limits of a line, of the lines in memory and of a file, and the number of rotated files.
  static constexpr std::size_t kMaxLineBytes = 65536;
  static constexpr std::size_t kMaxRecentLines = 5000;
  static constexpr std::size_t kMaxRecentBytes = 4194304;
  static constexpr std::uint64_t kRotationBytes = 52428800;
  static constexpr int kRotatedFiles = 5;

  /// The current time in seconds since 1970-01-01 UTC, as std::time returns it.
  using Clock = std::function<std::time_t()>;

  /// A logger beside the process-wide one. An empty `clock` means the system's.
  explicit Logger(Clock clock = {});

  /// Sets the folder of the log files (UTF-8; empty disables them) and opens today's file,
  /// `<file_stem>_<YYYYMMDD>.log`. Rotates an existing file of at least kRotationBytes first. True
  /// when the file is open. After a failure each line tries again.
  bool Configure(std::string_view directory, std::string_view file_stem);

  /// Full path of the open log file, UTF-8; empty when there is none.
  [[nodiscard]] std::string CurrentPath() const;

  /// Sets the thresholds from QORVA_LOG_FILTER or, when that is unset, from QORVA_LOG_CATEGORIES.
  /// They can only narrow the output: lines below INFO are never logged. When one of the two is
  /// set, a line that passes every filter says what is in force and what was not understood.
  void ApplyFilterFromEnvironment();

  /// Logs the concatenation of the pieces in the category kGeneral; the line has no category field.
  /// A line that does not pass the filter is not built.
  template <std::convertible_to<std::string_view>... Pieces>
  void Log(LogLevel level, const Pieces&... pieces) {
    if (!Passes(LogCategory::kGeneral, level)) return;
    Compose(std::nullopt, level, {std::string_view(pieces)...});
  }
  /// As above, in `category` and with a category field.
  template <std::convertible_to<std::string_view>... Pieces>
  void Log(LogCategory category, LogLevel level, const Pieces&... pieces) {
    if (!Passes(category, level)) return;
    Compose(category, level, {std::string_view(pieces)...});
  }

  /// Passes a complete line to the sinks, to memory and to the file, without the filter. An empty
  /// line goes to the sinks only.
  void Write(LogCategory category, LogLevel level, std::string line);

  /// Adds a receiver of each line, for the life of the logger.
  void AddSink(LogSink sink);

  /// The newest `count` lines, oldest first. A `count` of 0, or above their number, gives all.
  [[nodiscard]] std::vector<std::string> RecentLines(std::size_t count) const;

  /// True when the filter lets a line through.
  [[nodiscard]] bool Passes(LogCategory category, LogLevel level) const {
    return level >= kMinimumLevel &&
           level >= category_levels_[LogCategoryIndex(category)].load(std::memory_order_relaxed);
  }

  /// Every line counts as flushed, not only warnings, errors and lines of kDiagnostics.
  void set_always_flush(bool always_flush) { always_flush_.store(always_flush); }
  /// Number of flushed lines and file headers.
  [[nodiscard]] std::uint64_t flush_count() const { return flush_count_.load(); }

 private:
  using Sinks = std::vector<LogSink>;

  /// The lowest level of all categories. Nothing lowers it, so DEBUG lines are never logged.
  static constexpr LogLevel kMinimumLevel = LogLevel::kInfo;

  void SetThresholds(const LogThresholds& thresholds);
  void Compose(std::optional<LogCategory> category, LogLevel level,
               std::initializer_list<std::string_view> pieces);
  [[nodiscard]] std::shared_ptr<const Sinks> CurrentSinks() const;
  // The caller of these holds the lock.
  void AppendToFile(std::string& line, bool flush);
  void Remember(std::string line);
  void OpenForDate(std::time_t now, std::string_view date);
  void CloseStream();

  const Clock clock_;
  std::array<std::atomic<LogLevel>, kLogCategoryCount> category_levels_{};
  std::atomic<bool> always_flush_{false};
  std::atomic<std::uint64_t> flush_count_{0};
  std::atomic<bool> has_sinks_{false};  ///< without sinks a line skips the lock

  mutable std::mutex mutex_;            ///< guards what follows
  std::shared_ptr<const Sinks> sinks_;  ///< immutable, so that a copy is cheap
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
