#include "core/system_error.h"

#include <cerrno>

#include "core/text.h"

namespace zul {

namespace {

bool IsOneOf(const std::error_code& code, std::initializer_list<int> numbers) {
  if (code.category() != std::system_category()) return false;
  for (const int number : numbers) {
    if (code.value() == number) return true;
  }
  return false;
}

}  // namespace

std::error_code LastSystemError() {
  return {errno, std::system_category()};
}

std::string SystemErrorText(const std::error_code& code) {
  return std::string(TrimWhitespace(code.message()));
}

bool IsNotFoundError(const std::error_code& code) {
  return IsOneOf(code, {ENOENT, ENOTDIR});
}

bool IsExistsError(const std::error_code& code) {
  return IsOneOf(code, {EEXIST, ENOTEMPTY});
}

bool IsLockedOrDeniedError(const std::error_code& code) {
  return IsOneOf(code, {EACCES, EPERM, EBUSY, ETXTBSY});
}

}  // namespace zul
