#include "core/file_ops.h"

#include <cerrno>

namespace zul {

FileOpStatus FileOpStatusOf(const std::error_code& code, FileOpStatus default_status) {
  if (code.category() != std::system_category()) return default_status;
  switch (code.value()) {
    case ENOENT:
    case ENOTDIR:
    case ENAMETOOLONG:
      return kFileOpBadPath;
    case EACCES:
    case EPERM:
      return kFileOpPermissionDenied;
    case EBUSY:
    case ETXTBSY:
      return kFileOpSharingViolation;
    case ENOSPC:
    case EDQUOT:
      return kFileOpDiskFull;
    default:
      return default_status;
  }
}

}  // namespace zul
