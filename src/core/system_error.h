#pragma once

// System error codes: where they come from, what they mean, how they read. A code of the system is
// a std::error_code of std::system_category(): on Windows the value of GetLastError, elsewhere
// errno.

#include <string>
#include <system_error>

namespace zul {

/// The error of the last failed system call of this thread, as a system error code.
[[nodiscard]] std::error_code LastSystemError();

/// A system error code from its number (GetLastError's or errno's).
[[nodiscard]] std::error_code SystemError(unsigned long number);

/// The system's text for a code, UTF-8, without trailing white space. For a code of another
/// category its own message.
[[nodiscard]] std::string SystemErrorText(const std::error_code& code);

/// "code=5, message='Access denied.'": the number and the text of a code, as messages quote them.
[[nodiscard]] std::string DescribeSystemError(const std::error_code& code);

/// "file not found" or "path not found": 2 and 3 on Windows.
[[nodiscard]] bool IsNotFoundError(const std::error_code& code);

/// "file exists" or "already exists": 80 and 183 on Windows.
[[nodiscard]] bool IsExistsError(const std::error_code& code);

/// What a lock or a denied access looks like: 5, 32 and 33 on Windows. Only for system codes; a
/// code of the generic category is never one.
[[nodiscard]] bool IsLockedOrDeniedError(const std::error_code& code);

}  // namespace zul
