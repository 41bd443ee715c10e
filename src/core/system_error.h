#pragma once

// Error codes of the system: where they come from, what they mean, and their texts. A system error
// code is a std::error_code of std::system_category(): a value of GetLastError on Windows, of errno
// on other systems.

#include <string>
#include <system_error>

namespace zul {

/// The error of the last failed system call of this thread.
[[nodiscard]] std::error_code LastSystemError();

/// The system error code with this number (of GetLastError or errno).
[[nodiscard]] std::error_code SystemError(unsigned long number);

/// The system's text for a code, UTF-8, without trailing white space. For a code of another
/// category the text of that category.
[[nodiscard]] std::string SystemErrorText(const std::error_code& code);

/// "code=5, message='Access denied.'": the number and the text of a code, as messages quote them.
[[nodiscard]] std::string DescribeSystemError(const std::error_code& code);

/// What a system error code says about a file. The numbers are those of Windows.
enum class ErrorMeaning {
  kOther,         ///< any other code, and every code of another category
  kFileNotFound,  ///< 2
  kPathNotFound,  ///< 3; on other systems also for a missing file
  kInvalidName,   ///< 123
  kExists,        ///< 80, 183
  kAccessDenied,  ///< 5
  kInUse,         ///< 32 (sharing violation), 33 (lock violation)
  kDiskFull,      ///< 39, 112
};

/// The meaning of `code`.
[[nodiscard]] ErrorMeaning MeaningOf(const std::error_code& code);

/// kFileNotFound or kPathNotFound.
[[nodiscard]] bool IsNotFoundError(const std::error_code& code);

/// kExists.
[[nodiscard]] bool IsExistsError(const std::error_code& code);

/// kAccessDenied or kInUse, the two meanings that an open of a file by another process can cause.
[[nodiscard]] bool IsLockedOrDeniedError(const std::error_code& code);

}  // namespace zul
