#include "core/system_error.h"

#include <windows.h>

#include "core/text.h"

namespace zul {

std::error_code LastSystemError() {
  return SystemError(::GetLastError());
}

std::string SystemErrorText(const std::error_code& code) {
  if (code.category() != std::system_category()) return code.message();
  wchar_t buffer[1024];
  const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, static_cast<DWORD>(code.value()), 0, buffer,
                                        static_cast<DWORD>(std::size(buffer)), nullptr);
  const std::string text = WideToUtf8Lossy({buffer, length});
  return std::string(TrimWhitespace(text));
}

ErrorMeaning MeaningOf(const std::error_code& code) {
  if (code.category() != std::system_category()) return ErrorMeaning::kOther;
  switch (code.value()) {
    case ERROR_FILE_NOT_FOUND:
      return ErrorMeaning::kFileNotFound;
    case ERROR_PATH_NOT_FOUND:
      return ErrorMeaning::kPathNotFound;
    case ERROR_INVALID_NAME:
      return ErrorMeaning::kInvalidName;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
      return ErrorMeaning::kExists;
    case ERROR_ACCESS_DENIED:
      return ErrorMeaning::kAccessDenied;
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
      return ErrorMeaning::kInUse;
    case ERROR_HANDLE_DISK_FULL:
    case ERROR_DISK_FULL:
      return ErrorMeaning::kDiskFull;
    default:
      return ErrorMeaning::kOther;
  }
}

}  // namespace zul
