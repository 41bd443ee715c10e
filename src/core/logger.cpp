#include "core/logger.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "core/file_layer.h"
#include "core/process_environment.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::string_view kTruncationMark = "... [truncated]";

/// One second of local time as the log writes it.
struct LocalSecond {
  std::time_t second = -1;
  char date[8] = {};   // YYYYMMDD
  char clock[8] = {};  // HH:MM:SS

  [[nodiscard]] std::string_view Date() const { return {date, sizeof date}; }
  [[nodiscard]] std::string_view ClockText() const { return {clock, sizeof clock}; }
};

void PutTwoDigits(char* out, int value) {
  out[0] = static_cast<char>('0' + value / 10 % 10);
  out[1] = static_cast<char>('0' + value % 10);
}

/// `now` as local time. Each thread keeps its last result, so a burst of lines converts the time
/// once a second. (Keeping it longer would be wrong: the offset changes when summer time begins or
/// ends.)
const LocalSecond& LocalSecondOf(std::time_t now) {
  thread_local LocalSecond cached;
  if (cached.second == now) return cached;
  const std::tm local = LocalCalendarTime(now);
  const int year = local.tm_year + 1900;
  PutTwoDigits(cached.date, year / 100);
  PutTwoDigits(cached.date + 2, year);
  PutTwoDigits(cached.date + 4, local.tm_mon + 1);
  PutTwoDigits(cached.date + 6, local.tm_mday);
  PutTwoDigits(cached.clock, local.tm_hour);
  PutTwoDigits(cached.clock + 3, local.tm_min);
  PutTwoDigits(cached.clock + 6, local.tm_sec);
  cached.clock[2] = cached.clock[5] = ':';
  cached.second = now;
  return cached;
}

/// Calls <chrono>, which reads the clock directly; the C library's time() may take microseconds.
std::time_t SystemClock() {
  return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

/// In the order in which they count.
struct FilterVariable {
  const char* name;
  std::optional<LogThresholds> (*parse)(std::string_view text, LogFilterFaults* faults);
};
constexpr FilterVariable kFilterVariables[] = {{"QORVA_LOG_FILTER", ParseLogFilter},
                                               {"QORVA_LOG_CATEGORIES", ParseLogCategories}};

/// "general=WARN, diagnostics=INFO, ...".
std::string Describe(const LogThresholds& thresholds) {
  std::vector<std::string> levels;
  for (std::size_t i = 0; i < kLogCategoryCount; ++i) {
    const std::string_view level = TrimWhitespace(LogLevelField(thresholds[i]));
    levels.push_back(std::string(LogCategoryName(static_cast<LogCategory>(i))) + "=" +
                     std::string(level));
  }
  return JoinText(levels, ", ");
}

/// "not understood: 'bogus=info'", on one line of bounded length.
std::string Describe(const LogFilterFaults& faults) {
  constexpr std::size_t kFaultsBytesMax = 200;
  if (faults.empty()) return "it has no entry";
  std::string text = JoinText(faults, "', '");
  if (text.size() > kFaultsBytesMax) text = text.substr(0, kFaultsBytesMax) + "...";
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; }, '?');
  return "not understood: '" + text + "'";
}

/// `x.log` and 1 give `x.log.1`.
fs::Path RotatedName(const fs::Path& path, int number) {
  fs::Path result = path;
  result += "." + std::to_string(number);
  return result;
}

/// Renames a file that has reached the limit to ".1", after each rotated file moved to the next
/// number. A rotated file that another process has open may keep its number; then the newer ones
/// and the file itself keep their names too, and the file continues to grow. Only the oldest
/// rotated file is ever lost.
void RotateWhenFull(const fs::Path& path) {
  std::error_code ec;
  const std::uint64_t size_bytes = fs::SizeOf(path, ec);
  if (ec || size_bytes < Logger::kRotationBytes) return;
  fs::Remove(RotatedName(path, Logger::kRotatedFiles), ec);
  for (int n = Logger::kRotatedFiles - 1; n >= 1; --n) {
    static_cast<void>(fs::Rename(RotatedName(path, n), RotatedName(path, n + 1), ec));
  }
  static_cast<void>(fs::Rename(path, RotatedName(path, 1), ec));
}

}  // namespace

Logger::Logger(Clock clock) : clock_(clock ? std::move(clock) : Clock(SystemClock)) {}

bool Logger::Configure(std::string_view directory, std::string_view file_stem) {
  const std::scoped_lock lock(mutex_);
  CloseStream();
  directory_ = PathOrEmpty(directory);
  file_stem_ = file_stem;
  if (directory_.empty()) return false;
  const std::time_t now = clock_();
  OpenForDate(now, LocalSecondOf(now).Date());
  return stream_.is_open();
}

std::string Logger::CurrentPath() const {
  const std::scoped_lock lock(mutex_);
  return current_path_;
}

void Logger::ApplyFilterFromEnvironment() {
  for (const auto& [variable, parse] : kFilterVariables) {
    const std::string text = GetEnvironmentPath(variable);
    if (text.empty()) continue;
    LogFilterFaults faults;
    const std::optional<LogThresholds> thresholds = parse(text, &faults);
    SetThresholds(thresholds.value_or(LogThresholds{}));
    // These lines pass any filter: without them a log that lacks lines does not say why.
    if (thresholds) {
      Compose({}, LogLevel::kInfo, {"Log filter of ", variable, ": ", Describe(*thresholds)});
    } else {
      Compose(
          {}, LogLevel::kWarn,
          {"Log filter of ", variable, " is ignored, so nothing is filtered: ", Describe(faults)});
    }
    return;
  }
  SetThresholds({});
}

void Logger::SetThresholds(const LogThresholds& thresholds) {
  for (std::size_t i = 0; i < kLogCategoryCount; ++i) category_levels_[i].store(thresholds[i]);
}

void Logger::Compose(std::optional<LogCategory> category, LogLevel level,
                     std::initializer_list<std::string_view> pieces) {
  std::string line;
  std::size_t size = 64;  // the prefix, and the line feed that the file adds
  for (const std::string_view piece : pieces) size += piece.size();
  line.reserve(size);
  line.append(LocalSecondOf(clock_()).ClockText());
  line.append(" [").append(LogLevelField(level)).append("] ");
  if (category) line.append("[").append(LogCategoryName(*category)).append("] ");
  for (const std::string_view piece : pieces) line.append(piece);
  Write(category.value_or(LogCategory::kGeneral), level, std::move(line));
}

void Logger::Write(LogCategory category, LogLevel level, std::string line) {
  const bool flush = level >= LogLevel::kWarn || category == LogCategory::kDiagnostics ||
                     always_flush_.load(std::memory_order_relaxed);
  if (const std::shared_ptr<const Sinks> sinks = CurrentSinks()) {
    for (const LogSink& sink : *sinks) {
      try {
        sink(category, level, line);
      } catch (...) {  // the caller must not see a sink's failure
      }
    }
  }
  if (line.empty()) return;
  const std::scoped_lock lock(mutex_);
  if (line.size() > kMaxLineBytes) {
    line.resize(kMaxLineBytes);
    line.append(kTruncationMark);
    line.shrink_to_fit();  // so that the line uses the memory that recent_bytes_ counts
  }
  AppendToFile(line, flush);
  Remember(std::move(line));
}

void Logger::AddSink(LogSink sink) {
  if (!sink) return;
  const std::scoped_lock lock(mutex_);
  auto sinks = std::make_shared<Sinks>(sinks_ ? *sinks_ : Sinks());
  sinks->push_back(std::move(sink));
  sinks_ = std::move(sinks);
  has_sinks_.store(true);
}

std::shared_ptr<const Logger::Sinks> Logger::CurrentSinks() const {
  if (!has_sinks_.load()) return nullptr;
  const std::scoped_lock lock(mutex_);
  return sinks_;
}

std::vector<std::string> Logger::RecentLines(std::size_t count) const {
  const std::scoped_lock lock(mutex_);
  if (count == 0 || count > recent_lines_.size()) count = recent_lines_.size();
  return {recent_lines_.end() - static_cast<std::ptrdiff_t>(count), recent_lines_.end()};
}

void Logger::Remember(std::string line) {
  recent_bytes_ += line.size() + 1;
  recent_lines_.push_back(std::move(line));
  while (recent_lines_.size() > kMaxRecentLines || recent_bytes_ > kMaxRecentBytes) {
    recent_bytes_ -= recent_lines_.front().size() + 1;
    recent_lines_.pop_front();
  }
}

/// Writes each line with one system call. After the call the system has the line, and it survives a
/// crash of this process: there is no buffer to flush, so a flush is only counted. A flush of the
/// device would take milliseconds for each warning and protect only against a power failure.
void Logger::AppendToFile(std::string& line, bool flush) {
  if (directory_.empty()) return;
  const std::time_t now = clock_();
  const std::string_view date = LocalSecondOf(now).Date();
  if (!stream_.is_open() || date != current_date_) OpenForDate(now, date);
  if (!stream_.is_open()) return;
  line.push_back('\n');
  std::error_code ec;
  const bool written = fs::WriteAll(stream_, line.data(), line.size(), ec);
  line.pop_back();
  if (written && flush) ++flush_count_;
}

void Logger::OpenForDate(std::time_t now, std::string_view date) {
  std::error_code ec;
  if (!fs::CreateDirectories(directory_, ec)) return;
  const std::string name = file_stem_ + "_" + std::string(date) + ".log";
  const fs::Path path = directory_ / PathOrEmpty(name);
  RotateWhenFull(path);
  CloseStream();
  stream_ = fs::OpenForAppend(path, ec);
  if (!stream_.is_open()) return;
  current_date_ = date;
  current_path_ = PathToUtf8(path);

  const std::string_view clock = LocalSecondOf(now).ClockText();
  std::string header;
  header.append(date.substr(0, 4)).append("-").append(date.substr(4, 2)).append("-");
  header.append(date.substr(6, 2)).append(" ").append(clock);
  header.append(" [INFO ] ===== logging started: ").append(current_path_).append(" =====\n");
  if (fs::WriteAll(stream_, header.data(), header.size(), ec)) ++flush_count_;
}

void Logger::CloseStream() {
  std::error_code ec;
  static_cast<void>(stream_.Close(ec));
  current_date_.clear();
  current_path_.clear();
}

Logger& GetLogger() {
  // Never destroyed, so that destructors of static objects may still log.
  static Logger& logger = *new Logger;
  return logger;
}

}  // namespace zul
