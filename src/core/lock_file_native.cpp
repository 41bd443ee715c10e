#include "core/lock_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "core/system_error.h"

namespace zul::fs {

namespace {

/// True when the open file is still the one at `path`. A holder removes the file before it gives up
/// the lock, so a file that was opened before that can be locked after it.
bool IsStillAt(const Path& path, int descriptor) {
  struct stat opened;
  struct stat present;
  return ::fstat(descriptor, &opened) == 0 && ::lstat(path.c_str(), &present) == 0 &&
         opened.st_dev == present.st_dev && opened.st_ino == present.st_ino;
}

}  // namespace

LockFile::Result LockFile::Take(const Path& path, std::error_code& ec) {
  for (;;) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    File file(descriptor);
    if (descriptor == -1 || ::flock(descriptor, LOCK_EX | LOCK_NB) == -1) {
      ec = LastSystemError();
      return ec.value() == EWOULDBLOCK ? Result::kHeld : Result::kFailed;
    }
    if (!IsStillAt(path, descriptor)) continue;
    ec.clear();
    file_ = std::move(file);
    path_ = path;
    return Result::kTaken;
  }
}

void LockFile::Release() {
  if (!file_.is_open()) return;
  ::unlink(path_.c_str());
  file_ = File();
}

}  // namespace zul::fs
