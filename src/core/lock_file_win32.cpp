#include "core/lock_file.h"

#include <windows.h>

#include "core/api_path_win32.h"
#include "core/file_layer.h"
#include "core/system_error.h"

namespace zul::fs {

namespace {

constexpr unsigned kTries = 20;
constexpr DWORD kWaitMs = 50;

/// OPEN_ALWAYS: a machine that loses power leaves the file.
File Open(const Path& path, std::error_code& ec) {
  const HANDLE handle =
      ::CreateFileW(ApiPath(path).c_str(), GENERIC_WRITE | DELETE, 0, nullptr, OPEN_ALWAYS,
                    FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE |
                        FILE_FLAG_OPEN_REPARSE_POINT,
                    nullptr);
  ec = handle == INVALID_HANDLE_VALUE ? LastSystemError() : std::error_code();
  return File(reinterpret_cast<File::NativeHandle>(handle));
}

/// True when `ec` may mean that the file is being removed: its last holder has ended, and a scanner
/// still has it open. A folder in which this user may not create files does not have the entry.
bool MayBeInRemoval(const Path& path, const std::error_code& ec) {
  std::error_code query_error;
  return ec.value() == ERROR_ACCESS_DENIED &&
         KindOf(path, Links::kDoNotFollow, query_error) != EntryKind::kNotFound;
}

}  // namespace

LockFile::Result LockFile::Take(const Path& path, std::error_code& ec) {
  for (unsigned attempt = 1;; ++attempt) {
    file_ = Open(path, ec);
    if (file_.is_open()) return Result::kTaken;
    if (ec.value() == ERROR_SHARING_VIOLATION) return Result::kHeld;
    if (attempt == kTries || !MayBeInRemoval(path, ec)) return Result::kFailed;
    ::Sleep(kWaitMs);
  }
}

void LockFile::Release() {
  file_ = File();
}

}  // namespace zul::fs
