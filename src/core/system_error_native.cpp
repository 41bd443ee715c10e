#include "core/system_error.h"

#include <cerrno>

#include "core/text.h"

namespace zul {

std::error_code LastSystemError() {
  return {errno, std::system_category()};
}

std::string SystemErrorText(const std::error_code& code) {
  return std::string(TrimWhitespace(code.message()));
}

ErrorMeaning MeaningOf(const std::error_code& code) {
  if (code.category() != std::system_category()) return ErrorMeaning::kOther;
  switch (code.value()) {
    case ENOENT:
    case ENOTDIR:
      return ErrorMeaning::kPathNotFound;
    case ENAMETOOLONG:
      return ErrorMeaning::kInvalidName;
    case EEXIST:
    case ENOTEMPTY:
      return ErrorMeaning::kExists;
    case EACCES:
    case EPERM:
      return ErrorMeaning::kAccessDenied;
    case EBUSY:
    case ETXTBSY:
      return ErrorMeaning::kInUse;
    case ENOSPC:
    case EDQUOT:
      return ErrorMeaning::kDiskFull;
    default:
      return ErrorMeaning::kOther;
  }
}

}  // namespace zul
