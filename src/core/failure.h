#pragma once

// How a function that returns a bool and has an optional message reports a failure.

#include <string>
#include <string_view>
#include <system_error>

#include "core/system_error.h"

namespace zul {

/// Stores `message` followed by `detail` in `*error` unless that is null, and returns false:
/// `return Fail(error, "Cannot read: ", path);`
inline bool Fail(std::string* error, std::string_view message, std::string_view detail = {}) {
  if (error != nullptr) error->assign(message).append(detail);
  return false;
}

/// As above, with the system's text for `code` as the detail.
inline bool Fail(std::string* error, std::string_view message, const std::error_code& code) {
  return Fail(error, message, std::string_view(SystemErrorText(code)));
}

}  // namespace zul
