#pragma once

// The process-wide log: human-readable lines in a dated file, the newest of them in memory for
// reports, and every line to registered sinks. Filtering is set once, from the environment. Logging
// never fails its caller: a file that cannot be written costs only the file.

#include <array>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "core/file_layer.h"
#include "core/log_filter.h"

namespace zul {

/// Receives each line, without its line end. Called outside the logger's lock, so it may log.
using LogSink = std::function<void(LogCategory, LogLevel, const std::string& line)>;

class Logger {
 public:
  static constexpr std::size_t kMaxLineBytes = 65536;
  static constexpr std::size_t kMaxRecentLines = 5000;
  static constexpr std::size_t kMaxRecentBytes = 4194304;
  static constexpr std::uint64_t kRotationBytes = 52428800;
  static constexpr int kRotatedFiles = 5;

  /// Sets the file output to `directory` (UTF-8; empty disables it) and opens today's file there.
  /// True when the file is open.
  bool Configure(std::string_view directory, std::string_view file_stem);

  /// Full path of the open log file, UTF-8; empty when there is none.
  [[nodiscard]] std::string CurrentPath() const;

  /// Takes the filter from QORVA_LOG_FILTER or QORVA_LOG_CATEGORIES.
  void ApplyFilterFromEnvironment();

  /// Logs the concatenation of up to four pieces. Below the level nothing is built.
  template <std::convertible_to<std::string_view>... Pieces>
  void Log(LogLevel level, const Pieces&... pieces) {
    Log(LogCategory::kGeneral, level, pieces...);
  }
  template <std::convertible_to<std::string_view>... Pieces>
  void Log(LogCategory category, LogLevel level, const Pieces&... pieces) {
    static_assert(sizeof...(pieces) >= 1 && sizeof...(pieces) <= 4);
    if (!Passes(category, level)) return;
    std::string message;
    (message.append(std::string_view(pieces)), ...);
    Write(category, level, message);
  }

  /// Formats one line and hands it to sinks, file and memory, without asking the filter.
  void Write(LogCategory category, LogLevel level, std::string_view text);

  void AddSink(LogSink sink);

  /// The newest `count` lines, oldest first; 0 or more than there are gives all.
  [[nodiscard]] std::vector<std::string> RecentLines(std::size_t count) const;

  [[nodiscard]] bool Passes(LogCategory category, LogLevel level) const;
  void set_always_flush(bool always_flush);
  [[nodiscard]] std::uint64_t flush_count() const { return flush_count_.load(); }

 private:
  void Append(const std::string& line, bool flush);
  void Remember(std::string line);
  void OpenForDate(const std::string& date);
  void CloseStream();

  LogLevel minimum_level_ = LogLevel::kInfo;
  LogThresholds category_levels_{};
  bool always_flush_ = false;
  std::atomic<std::uint64_t> flush_count_{0};
  std::vector<LogSink> sinks_;
  mutable std::mutex mutex_;
  fs::File stream_;
  std::filesystem::path directory_;
  std::string file_stem_;
  std::string current_date_;
  std::string current_path_;
  std::deque<std::string> recent_lines_;
  std::size_t recent_bytes_ = 0;
};

/// The process-wide logger, built on first use and alive until the process ends.
[[nodiscard]] Logger& GetLogger();

}  // namespace zul
