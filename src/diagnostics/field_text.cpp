#include "diagnostics/field_text.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>

#include "collector/session_directory.h"
#include "core/process_environment.h"

namespace zul {

namespace {

std::string LocalNow(const char* format) {
  using std::chrono::system_clock;
  const std::tm local = LocalCalendarTime(system_clock::to_time_t(system_clock::now()));
  std::array<char, 32> text{};
  return {text.data(), std::strftime(text.data(), text.size(), format, &local)};
}

bool IsContinuationByte(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
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
  // More continuation bytes in a row than a character has are not UTF-8: cut anywhere.
  return text.substr(0, IsContinuationByte(text[end]) ? max_bytes : end);
}

std::string ShortenText(std::string_view text, std::size_t max_bytes) {
  std::string shortened(CutText(text, max_bytes));
  if (shortened.size() < text.size()) shortened += "...";
  return shortened;
}

}  // namespace zul
