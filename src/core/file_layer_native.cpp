#include "core/file_layer.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "core/system_error.h"

namespace zul::fs {

namespace {

/// The outcome of a system call that returns -1 on failure.
bool Succeeded(int result, std::error_code& ec) {
  ec = result == -1 ? LastSystemError() : std::error_code();
  return result != -1;
}

EntryKind KindOfMode(mode_t mode) {
  if (S_ISREG(mode)) return EntryKind::kRegular;
  if (S_ISDIR(mode)) return EntryKind::kDirectory;
  if (S_ISLNK(mode)) return EntryKind::kLink;
  return EntryKind::kOther;
}

/// realpath(3); empty with an error.
Path RealPath(const Path& path, std::error_code& ec) {
  const std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path.c_str(), nullptr),
                                                          &::free);
  ec = resolved ? std::error_code() : LastSystemError();
  return resolved ? Path(resolved.get()) : Path();
}

bool HasParentStep(const Path& path) {
  return std::find(path.begin(), path.end(), "..") != path.end();
}

/// rename(2) that refuses an existing target.
bool RenameToFreeName(const Path& from, const Path& to, std::error_code& ec) {
  const auto rename = [&] {
    return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
  };
  if (Succeeded(rename(), ec)) return true;
  if (ec.value() != EINVAL && ec.value() != ENOSYS) return false;
  // The file system does not support the flag, so the check and the rename are two steps.
  struct stat status;
  if (::lstat(to.c_str(), &status) == 0) {
    ec = SystemError(EEXIST);
    return false;
  }
  return Succeeded(::rename(from.c_str(), to.c_str()), ec);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Entries

EntryKind KindOf(const Path& path, Links links, std::error_code& ec) {
  struct stat status;
  const int result =
      links == Links::kFollow ? ::stat(path.c_str(), &status) : ::lstat(path.c_str(), &status);
  if (Succeeded(result, ec)) return KindOfMode(status.st_mode);
  if (!IsNotFoundError(ec)) return EntryKind::kUnknown;
  ec.clear();
  return EntryKind::kNotFound;
}

PathProbe ProbePath(const Path& path) {
  PathProbe probe;
  struct stat status;
  if (Succeeded(::stat(path.c_str(), &status), probe.system_error)) {
    probe.kind = PathProbe::kExists;
    probe.is_directory = S_ISDIR(status.st_mode);
  } else if (IsNotFoundError(probe.system_error)) {
    if (Succeeded(::lstat(path.c_str(), &status), probe.system_error)) {
      probe.kind = PathProbe::kUnresolvedReparsePoint;
    } else if (IsNotFoundError(probe.system_error)) {
      probe.kind = PathProbe::kMissing;
    }
  }
  return probe;
}

bool IsSameFile(const Path& a, const Path& b, std::error_code& ec) {
  struct stat first;
  struct stat second;
  return Succeeded(::stat(a.c_str(), &first), ec) && Succeeded(::stat(b.c_str(), &second), ec) &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

std::chrono::seconds AgeOf(const Path& path, std::error_code& ec) {
  struct stat status;
  if (!Succeeded(::lstat(path.c_str(), &status), ec)) return {};
  return std::chrono::seconds(std::time(nullptr) - status.st_mtim.tv_sec);
}

std::uint64_t SizeOf(const Path& path, std::error_code& ec) {
  struct stat status;
  if (!Succeeded(::stat(path.c_str(), &status), ec)) return 0;
  if (S_ISDIR(status.st_mode)) {
    ec = SystemError(EISDIR);
    return 0;
  }
  return static_cast<std::uint64_t>(status.st_size);
}

std::uint64_t AvailableSpace(const Path& path, std::error_code& ec) {
  struct statvfs volume;
  if (!Succeeded(::statvfs(path.c_str(), &volume), ec)) return 0;
  return std::uint64_t{volume.f_bavail} * volume.f_frsize;
}

bool VolumeOf(const Path& folder, Volume* volume, std::error_code& ec) {
  struct stat here;
  struct statvfs facts;
  volume->root = RealPath(folder, ec);
  if (ec || !Succeeded(::stat(volume->root.c_str(), &here), ec) ||
      !Succeeded(::statvfs(volume->root.c_str(), &facts), ec)) {
    return false;
  }
  volume->available_bytes = std::uint64_t{facts.f_bavail} * facts.f_frsize;
  volume->cluster_bytes = facts.f_frsize;
  // The parent of a volume's root is on another device, or the root itself.
  for (struct stat above; volume->root.has_relative_path();
       volume->root = volume->root.parent_path()) {
    if (!Succeeded(::stat(volume->root.parent_path().c_str(), &above), ec)) return false;
    if (above.st_dev != here.st_dev) break;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Resolved paths

Path Canonical(const Path& path, std::error_code& ec) {
  return RealPath(path, ec);
}

Path WeaklyCanonical(const Path& path, std::error_code& ec) {
  if (path.empty()) {
    ec = SystemError(EINVAL);
    return {};
  }
  Path existing = path;
  Path rest;
  for (;;) {
    Path resolved = RealPath(existing.empty() ? "." : existing, ec);
    if (!ec) {
      if (rest.empty()) return resolved;
      // A ".." after a missing folder may lead back to an existing one: resolve the result again.
      const bool again = HasParentStep(rest);
      resolved = (resolved / rest).lexically_normal();
      return again ? WeaklyCanonical(resolved, ec) : resolved;
    }
    if (!IsNotFoundError(ec) || existing.empty() || !existing.has_relative_path()) return {};
    if (existing.has_filename()) {
      rest = rest.empty() ? existing.filename() : existing.filename() / rest;
    }
    existing = existing.parent_path();
  }
}

Path CurrentDirectory(std::error_code& ec) {
  return RealPath(".", ec);
}

// ---------------------------------------------------------------------------------------------
// Folders

CreateResult CreateDirectoryOnce(const Path& path, std::error_code& ec) {
  if (Succeeded(::mkdir(path.c_str(), 0777), ec)) return CreateResult::kCreated;
  return IsExistsError(ec) ? CreateResult::kExisted : CreateResult::kFailed;
}

bool FlushDirectory(const Path& path, std::error_code& ec) {
  const int descriptor =
      ::open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (!Succeeded(descriptor, ec)) return false;
  File directory(descriptor);
  return directory.Flush(ec);
}

// ---------------------------------------------------------------------------------------------
// Copies and moves

bool CopyFileTo(const Path& from, const Path& to, std::error_code& ec) {
  // std::filesystem::copy_file would report a full volume as an input/output error.
  File source = OpenForRead(from, ec);
  if (ec) return false;
  if (IsSameFile(from, to, ec)) {
    ec = SystemError(EEXIST);  // opening the target would truncate the source
    return false;
  }
  File target = CreateTruncatedFile(to, ec);
  if (ec) return false;
  std::uint64_t copied_bytes = 0;
  return CopyContents(source, target, &copied_bytes, ec) &&
         target.TakeTimeAndAttributes(source, ec) && target.Close(ec);
}

bool Rename(const Path& from, const Path& to, std::error_code& ec) {
  return RenameToFreeName(from, to, ec);
}

bool MoveReplacing(const Path& from, const Path& to, std::error_code& ec) {
  if (!Succeeded(::rename(from.c_str(), to.c_str()), ec)) return false;
  std::error_code ignored;  // the file is replaced even when the folder cannot be flushed
  FlushDirectory(to.parent_path(), ignored);
  return true;
}

bool MoveReplacingWhole(const Path& from, const Path& to, std::error_code& ec) {
  return MoveReplacing(from, to, ec);  // which is a rename(2) here
}

bool MoveReplacingAtReboot(const Path& /*from*/, const Path& /*to*/, std::error_code& ec) {
  ec = SystemError(ENOTSUP);
  return false;
}

bool MoveToNewName(const Path& from, const Path& to, std::error_code& ec) {
  if (!RenameToFreeName(from, to, ec)) return false;
  std::error_code ignored;
  FlushDirectory(to.parent_path(), ignored);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Removal

bool Remove(const Path& path, std::error_code& ec) {
  if (Succeeded(::unlink(path.c_str()), ec)) return true;
  // For a folder unlink(2) gives EISDIR on Linux and EPERM on other systems.
  if ((ec.value() == EISDIR || ec.value() == EPERM) && Succeeded(::rmdir(path.c_str()), ec)) {
    return true;
  }
  if (IsNotFoundError(ec)) ec.clear();
  return false;
}

}  // namespace zul::fs
