#pragma once

#include <string>
#include <string_view>
#include <system_error>

#include "core/system_error.h"

namespace zul {

/// Writes a message, if anyone wants it, and is false: `return Fail(error, "cannot ...");`
[[nodiscard]] inline bool Fail(std::string* error, std::string_view message,
                               std::string_view detail = {}) {
  if (error) error->assign(message).append(detail);
  return false;
}

/// The same with the system's text behind the message.
[[nodiscard]] inline bool Fail(std::string* error, std::string_view message,
                               const std::error_code& code) {
  return Fail(error, message, std::string_view(SystemErrorText(code)));
}

}  // namespace zul
