#include "diagnostics/diagnostic_names.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <exception>
#include <nlohmann/json.hpp>

#include "collector/session_directory.h"
#include "core/logger.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/redaction.h"

namespace zul {

namespace {

using std::chrono::system_clock;

constexpr std::size_t kFailureTextBytesMax = 512;

std::string LocalNow(const char* format) {
  const std::tm local = LocalCalendarTime(system_clock::to_time_t(system_clock::now()));
  std::array<char, 32> text{};
  return {text.data(), std::strftime(text.data(), text.size(), format, &local)};
}

bool IsContinuationByte(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

/// Writes and closes `path`, which is made anew; whatever stood there is a leftover.
bool WriteTemporary(const fs::Path& path, std::string_view text) {
  std::error_code ec;
  fs::Remove(path, ec);
  fs::File file = fs::CreateNewFileItself(path, ec);
  if (!file.is_open()) {
    LogDiagnosticsFailure("upload evidence rewrite open", "stream open failed");
    return false;
  }
  if (fs::WriteAll(file, text.data(), text.size(), ec) && file.Flush(ec) && file.Close(ec)) {
    return true;
  }
  LogDiagnosticsFailure("upload evidence rewrite write", "stream write failed");
  return false;
}

}  // namespace

std::string SanitizeIdentifier(std::string_view text) {
  if (text.empty()) return "diagnostics";
  std::string identifier(text);
  for (char& c : identifier) {
    if (!HasOnlyWordBytes({&c, 1})) c = '_';
  }
  return identifier;
}

std::string MakeDiagnosticId(std::string_view prefix) {
  static std::atomic<std::uint64_t> last_number{0};
  const std::uint64_t number = ++last_number;
  std::string id(prefix.empty() ? "report" : prefix);
  id += "_" + LocalTimeForNames() + "_" + std::to_string(CurrentProcessId()) + "_" +
        std::to_string(number);
  return SanitizeIdentifier(id);
}

std::string LocalTimeText() {
  return LocalNow("%Y-%m-%d %H:%M:%S");
}

std::string LocalTimeForNames() {
  return LocalNow("%Y%m%d_%H%M%S");
}

std::string_view CutText(std::string_view text, std::size_t max_bytes) {
  if (text.size() <= max_bytes) return text;
  std::size_t end = max_bytes;
  while (end > 0 && max_bytes - end < 3 && IsContinuationByte(text[end])) --end;
  // More continuation bytes in a row than a character has: no UTF-8, so no character to keep whole.
  return text.substr(0, IsContinuationByte(text[end]) ? max_bytes : end);
}

std::string ShortenText(std::string_view text, std::size_t max_bytes) {
  std::string shortened(CutText(text, max_bytes));
  if (shortened.size() < text.size()) shortened += "...";
  return shortened;
}

nlohmann::json ArtifactMetadata(const fs::Path& path) {
  if (path.empty()) return {{"present", false}};
  std::error_code ec;
  const fs::EntryKind kind = fs::KindOf(path, fs::Links::kFollow, ec);
  const bool present = kind == fs::EntryKind::kRegular;
  std::uint64_t size_bytes = 0;
  if (present) size_bytes = fs::SizeOf(path, ec);
  if (ec) LogDiagnosticsFailure("path artifact metadata", SystemErrorText(ec));
  return {{"present", present},
          {"extension", PathToUtf8(path.extension())},
          {"size_bytes", ec ? 0 : size_bytes}};
}

void LogDiagnosticsFailure(std::string_view label, std::string_view text) {
  std::string reason;
  if (!text.empty()) reason = ": " + ShortenText(RedactSupportText(text), kFailureTextBytesMax);
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kWarn, "Diagnostics ", label, " failed",
                  reason);
}

bool RunGuarded(std::string_view label, const std::function<void()>& step) noexcept {
  try {
    step();
    return true;
  } catch (const std::exception& failure) {
    LogDiagnosticsFailure(label, failure.what());
  } catch (...) {
    LogDiagnosticsFailure(label, "non-standard exception");
  }
  return false;
}

bool WriteDiagnosticsJson(const fs::Path& path, const nlohmann::json& json) {
  const std::string text = json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
  fs::Path temporary = path;
  temporary += ".tmp." + std::to_string(CurrentProcessId());
  std::error_code ec;
  // A folder that cannot be made shows when the file is opened.
  static_cast<void>(fs::CreateDirectories(path.parent_path(), ec));
  bool done = WriteTemporary(temporary, text);
  if (done && !fs::MoveReplacingWhole(temporary, path, ec)) {
    LogDiagnosticsFailure("upload evidence rewrite commit", SystemErrorText(ec));
    done = false;
  }
  if (!done) fs::Remove(temporary, ec);
  return done;
}

}  // namespace zul
