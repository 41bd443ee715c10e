#include "core/system_error.h"

#include <windows.h>

#include "core/text.h"

namespace zul {

namespace {

bool IsSystemCode(const std::error_code& code) {
  return code.category() == std::system_category();
}

}  // namespace

std::error_code LastSystemError() {
  return SystemError(::GetLastError());
}

std::string SystemErrorText(const std::error_code& code) {
  if (!IsSystemCode(code)) return code.message();
  wchar_t buffer[1024];
  const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, static_cast<DWORD>(code.value()), 0, buffer,
                                        static_cast<DWORD>(std::size(buffer)), nullptr);
  const std::string text = WideToUtf8Lossy({buffer, length});
  return std::string(TrimWhitespace(text));
}

bool IsNotFoundError(const std::error_code& code) {
  return IsSystemCode(code) &&
         (code.value() == ERROR_FILE_NOT_FOUND || code.value() == ERROR_PATH_NOT_FOUND);
}

bool IsExistsError(const std::error_code& code) {
  return IsSystemCode(code) &&
         (code.value() == ERROR_FILE_EXISTS || code.value() == ERROR_ALREADY_EXISTS);
}

bool IsLockedOrDeniedError(const std::error_code& code) {
  return IsSystemCode(code) &&
         (code.value() == ERROR_ACCESS_DENIED || code.value() == ERROR_SHARING_VIOLATION ||
          code.value() == ERROR_LOCK_VIOLATION);
}

}  // namespace zul
