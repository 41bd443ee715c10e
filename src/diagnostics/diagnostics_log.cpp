#include "diagnostics/diagnostics_log.h"

#include <cstddef>
#include <exception>
#include <string>

#include "diagnostics/field_text.h"
#include "diagnostics/redaction.h"

namespace zul {

namespace {

constexpr std::size_t kFailureTextBytesMax = 512;

}  // namespace

void LogDiagnosticsFailure(std::string_view label, std::string_view text) {
  std::string reason;
  if (!text.empty()) reason = ": " + ShortenText(RedactSupportText(text), kFailureTextBytesMax);
  LogDiagnostics(LogLevel::kWarn, "Diagnostics ", label, " failed", reason);
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

}  // namespace zul
