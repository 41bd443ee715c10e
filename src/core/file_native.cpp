#include "core/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>

#include "core/system_error.h"

namespace zul::fs {

namespace {

constexpr mode_t kNewFileMode = 0666;

int Descriptor(File::NativeHandle handle) {
  return static_cast<int>(handle);
}

/// Repeats a system call that a signal interrupted.
template <typename Call>
auto Uninterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

File Open(const Path& path, int flags, std::error_code& ec) {
  const int descriptor =
      Uninterrupted([&] { return ::open(path.c_str(), flags | O_CLOEXEC, kNewFileMode); });
  ec = descriptor == -1 ? LastSystemError() : std::error_code();
  return File(descriptor);
}

bool Status(File::NativeHandle handle, struct stat* status, std::error_code& ec) {
  const bool ok = ::fstat(Descriptor(handle), status) == 0;
  ec = ok ? std::error_code() : LastSystemError();
  return ok;
}

}  // namespace

bool File::Read(void* buffer, std::size_t size, std::size_t* read, std::error_code& ec) {
  const ssize_t result = Uninterrupted([&] { return ::read(Descriptor(handle_), buffer, size); });
  ec = result == -1 ? LastSystemError() : std::error_code();
  *read = result == -1 ? 0 : static_cast<std::size_t>(result);
  return !ec;
}

bool File::ReadAt(std::uint64_t offset_bytes, void* buffer, std::size_t size, std::size_t* read,
                  std::error_code& ec) {
  const ssize_t result = Uninterrupted(
      [&] { return ::pread(Descriptor(handle_), buffer, size, static_cast<off_t>(offset_bytes)); });
  ec = result == -1 ? LastSystemError() : std::error_code();
  *read = result == -1 ? 0 : static_cast<std::size_t>(result);
  return !ec;
}

bool File::WriteSome(const void* data, std::size_t size, std::size_t* written,
                     std::error_code& ec) {
  const ssize_t result = Uninterrupted([&] { return ::write(Descriptor(handle_), data, size); });
  ec = result == -1 ? LastSystemError() : std::error_code();
  *written = result == -1 ? 0 : static_cast<std::size_t>(result);
  return !ec;
}

bool File::Flush(std::error_code& ec) {
  const int result = Uninterrupted([&] { return ::fsync(Descriptor(handle_)); });
  ec = result == -1 ? LastSystemError() : std::error_code();
  return !ec;
}

bool File::Close(std::error_code& ec) {
  ec.clear();
  const NativeHandle handle = std::exchange(handle_, kNoHandle);
  if (handle != kNoHandle && ::close(Descriptor(handle)) == -1) ec = LastSystemError();
  return !ec;
}

bool File::Facts(FileFacts* facts, std::error_code& ec) const {
  struct stat status;
  if (!Status(handle_, &status, ec)) return false;
  facts->is_directory = S_ISDIR(status.st_mode);
  facts->is_disk_file = S_ISREG(status.st_mode) || facts->is_directory;
  return true;
}

bool File::Size(std::uint64_t* size_bytes, std::error_code& ec) const {
  struct stat status;
  if (!Status(handle_, &status, ec)) return false;
  *size_bytes = static_cast<std::uint64_t>(status.st_size);
  return true;
}

Path File::Whereabouts(std::error_code& ec) const {
  Path link = "/proc/self/fd/" + std::to_string(handle_);
  char path[PATH_MAX];
  const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
  ec = length == -1 ? LastSystemError() : std::error_code();
  return ec ? Path() : Path(std::string(path, static_cast<std::size_t>(length)));
}

bool File::TakeTimeAndAttributes(const File& source, std::error_code& ec) {
  struct stat status;
  if (!Status(source.handle_, &status, ec)) return false;
  const timespec times[2] = {{0, UTIME_OMIT}, status.st_mtim};
  if (::futimens(Descriptor(handle_), times) == -1 ||
      ::fchmod(Descriptor(handle_), status.st_mode & 07777) == -1) {
    ec = LastSystemError();
  }
  return !ec;
}

File OpenForRead(const Path& path, std::error_code& ec) {
  // Without O_NONBLOCK the open of a pipe would wait for its writer.
  return Open(path, O_RDONLY | O_NONBLOCK, ec);
}

File HoldForRead(const Path& path, std::error_code& ec) {
  return OpenForRead(path, ec);
}

bool HeldFoldersStay() {
  return false;
}

File HoldFolder(const Path& path, std::error_code& ec) {
  return Open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW, ec);
}

File CreateNewFile(const Path& path, NewFileAccess access, std::error_code& ec) {
  const int mode = access == NewFileAccess::kWrite ? O_WRONLY : O_RDWR;
  return Open(path, mode | O_CREAT | O_EXCL, ec);
}

File CreateNewFileIn(const File& folder, const Path& name, NewFileAccess access,
                     std::error_code& ec) {
  const int mode = access == NewFileAccess::kWrite ? O_WRONLY : O_RDWR;
  const int descriptor = Uninterrupted([&] {
    return ::openat(Descriptor(folder.native()), name.c_str(), mode | O_CREAT | O_EXCL | O_CLOEXEC,
                    kNewFileMode);
  });
  ec = descriptor == -1 ? LastSystemError() : std::error_code();
  return File(descriptor);
}

File CreateNewFileItself(const Path& path, std::error_code& ec) {
  return CreateNewFile(path, NewFileAccess::kWrite, ec);  // O_EXCL never follows a link
}

File CreateNewWriteThrough(const Path& path, std::error_code& ec) {
  return Open(path, O_WRONLY | O_CREAT | O_EXCL | O_SYNC, ec);
}

File CreateTruncatedFile(const Path& path, std::error_code& ec) {
  return Open(path, O_WRONLY | O_CREAT | O_TRUNC, ec);
}

File OpenForAppend(const Path& path, std::error_code& ec) {
  return Open(path, O_WRONLY | O_CREAT | O_APPEND, ec);
}

bool OpensExclusively(const Path& path, std::error_code& ec) {
  // No open excludes another one here, so the result says only whether the file may be written.
  return Open(path, O_RDWR, ec).is_open();
}

}  // namespace zul::fs
