#pragma once

// The lines of diagnostics in the log. A failure in diagnostics becomes one line and stops nothing.

#include <functional>
#include <string_view>

#include "core/logger.h"

namespace zul {

/// Logs the concatenation of the pieces in the category of diagnostics.
template <typename... Pieces>
void LogDiagnostics(LogLevel level, const Pieces&... pieces) {
  GetLogger().Log(LogCategory::kDiagnostics, level, pieces...);
}

/// Logs a failure at warning level: "Diagnostics LABEL failed: TEXT". The text is redacted and cut
/// to 512 bytes. Without a text the line ends at "failed".
void LogDiagnosticsFailure(std::string_view label, std::string_view text = {});

/// Runs one step of diagnostics. An exception becomes the failure line of `label` and goes no
/// further. Returns false after an exception.
bool RunGuarded(std::string_view label, const std::function<void()>& step) noexcept;

}  // namespace zul
