#include "core/file_ops.h"

#include <windows.h>

namespace zul {

FileOpStatus FileOpStatusOf(const std::error_code& code, FileOpStatus default_status) {
  if (code.category() != std::system_category()) return default_status;
  switch (code.value()) {
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_NAME:
      return kFileOpBadPath;
    case ERROR_ACCESS_DENIED:
      return kFileOpPermissionDenied;
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
      return kFileOpSharingViolation;
    case ERROR_HANDLE_DISK_FULL:
    case ERROR_DISK_FULL:
      return kFileOpDiskFull;
    default:
      return default_status;
  }
}

}  // namespace zul
