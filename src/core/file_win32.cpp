#include "core/file.h"

#include <windows.h>

#include <algorithm>
#include <limits>

#include "core/api_path_win32.h"
#include "core/folder_handle_win32.h"
#include "core/system_error.h"

namespace zul::fs {

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

static_assert(sizeof(HANDLE) == sizeof(File::NativeHandle));

HANDLE Handle(File::NativeHandle handle) {
  return reinterpret_cast<HANDLE>(handle);  // NOLINT(performance-no-int-to-ptr)
}

/// The outcome of a call that returns zero on failure.
bool Succeeded(BOOL result, std::error_code& ec) {
  ec = result ? std::error_code() : LastSystemError();
  return result != FALSE;
}

/// The part of `size` that one call can take.
DWORD OneCall(std::size_t size) {
  return static_cast<DWORD>(std::min<std::size_t>(size, std::numeric_limits<DWORD>::max()));
}

File Open(const Path& path, DWORD access, DWORD sharing, DWORD disposition, DWORD flags,
          std::error_code& ec) {
  const HANDLE handle =
      ::CreateFileW(ApiPath(path).c_str(), access, sharing, nullptr, disposition, flags, nullptr);
  // OPEN_ALWAYS and CREATE_ALWAYS set the last error to ERROR_ALREADY_EXISTS on success too.
  ec = handle == INVALID_HANDLE_VALUE ? LastSystemError() : std::error_code();
  return File(reinterpret_cast<File::NativeHandle>(handle));
}

}  // namespace

bool File::Read(void* buffer, std::size_t size, std::size_t* read, std::error_code& ec) {
  DWORD count = 0;
  const bool ok =
      Succeeded(::ReadFile(Handle(handle_), buffer, OneCall(size), &count, nullptr), ec);
  *read = count;
  return ok;
}

bool File::ReadAt(std::uint64_t offset_bytes, void* buffer, std::size_t size, std::size_t* read,
                  std::error_code& ec) {
  // An offset in an OVERLAPPED is an order of magnitude slower under Wine.
  LARGE_INTEGER position;
  position.QuadPart = static_cast<LONGLONG>(offset_bytes);
  *read = 0;
  return Succeeded(::SetFilePointerEx(Handle(handle_), position, nullptr, FILE_BEGIN), ec) &&
         Read(buffer, size, read, ec);
}

bool File::WriteSome(const void* data, std::size_t size, std::size_t* written,
                     std::error_code& ec) {
  DWORD count = 0;
  const bool ok = Succeeded(::WriteFile(Handle(handle_), data, OneCall(size), &count, nullptr), ec);
  *written = count;
  return ok;
}

bool File::Flush(std::error_code& ec) {
  return Succeeded(::FlushFileBuffers(Handle(handle_)), ec);
}

bool File::Close(std::error_code& ec) {
  ec.clear();
  const NativeHandle handle = std::exchange(handle_, kNoHandle);
  return handle == kNoHandle || Succeeded(::CloseHandle(Handle(handle)), ec);
}

bool File::Facts(FileFacts* facts, std::error_code& ec) const {
  *facts = {};
  ec.clear();
  facts->is_disk_file = ::GetFileType(Handle(handle_)) == FILE_TYPE_DISK;
  if (!facts->is_disk_file) return true;
  BY_HANDLE_FILE_INFORMATION information;
  if (!Succeeded(::GetFileInformationByHandle(Handle(handle_), &information), ec)) return false;
  facts->is_directory = (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return true;
}

bool File::Size(std::uint64_t* size_bytes, std::error_code& ec) const {
  LARGE_INTEGER size;
  if (!Succeeded(::GetFileSizeEx(Handle(handle_), &size), ec)) return false;
  if (size.QuadPart < 0) {
    ec = SystemError(ERROR_INVALID_DATA);
    return false;
  }
  *size_bytes = static_cast<std::uint64_t>(size.QuadPart);
  return true;
}

bool File::TakeTimeAndAttributes(const File& source, std::error_code& ec) {
  constexpr DWORD kTaken = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                           FILE_ATTRIBUTE_ARCHIVE;
  FILE_BASIC_INFO from;
  if (!Succeeded(
          ::GetFileInformationByHandleEx(Handle(source.handle_), FileBasicInfo, &from, sizeof from),
          ec)) {
    return false;
  }
  FILE_BASIC_INFO to{};  // a time of 0 stays unchanged
  to.LastWriteTime = from.LastWriteTime;
  to.FileAttributes = from.FileAttributes & kTaken;
  if (to.FileAttributes == 0) to.FileAttributes = FILE_ATTRIBUTE_NORMAL;  // 0 means unchanged
  return Succeeded(::SetFileInformationByHandle(Handle(handle_), FileBasicInfo, &to, sizeof to),
                   ec);
}

File OpenForRead(const Path& path, std::error_code& ec) {
  return Open(path, GENERIC_READ, kShareAll, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, ec);
}

File HoldForRead(const Path& path, std::error_code& ec) {
  return Open(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, ec);
}

bool HeldFoldersStay() {
  return true;
}

File HoldFolder(const Path& path, std::error_code& ec) {
  File folder =
      Open(path, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, ec);
  if (ec || IsOwnFolder(Handle(folder.native()), ApiPath(path))) return folder;
  ec = SystemError(ERROR_DIRECTORY);
  return {};
}

File CreateNewFile(const Path& path, NewFileAccess access, std::error_code& ec) {
  const DWORD mode = access == NewFileAccess::kWrite ? GENERIC_WRITE : GENERIC_READ | GENERIC_WRITE;
  return Open(path, mode, 0, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, ec);
}

File CreateNewFileIn(const File& folder, const Path& name, NewFileAccess access,
                     std::error_code& ec) {
  const DWORD mode = access == NewFileAccess::kWrite ? GENERIC_WRITE : GENERIC_READ | GENERIC_WRITE;
  return File(
      reinterpret_cast<File::NativeHandle>(OpenInFolder(Handle(folder.native()), name.native(),
                                                        {.access = mode,
                                                         .share = 0,
                                                         .disposition = FILE_CREATE,
                                                         .options = FILE_NON_DIRECTORY_FILE},
                                                        ec)
                                               .Release()));
}

File CreateNewFileItself(const Path& path, std::error_code& ec) {
  return Open(path, GENERIC_WRITE, 0, CREATE_NEW,
              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, ec);
}

File CreateNewWriteThrough(const Path& path, std::error_code& ec) {
  return Open(path, GENERIC_WRITE, FILE_SHARE_READ, CREATE_NEW,
              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH, ec);
}

File CreateTruncatedFile(const Path& path, std::error_code& ec) {
  return Open(path, GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, ec);
}

File OpenForAppend(const Path& path, std::error_code& ec) {
  // Without FILE_WRITE_DATA the system puts each write at the end that the file has at that time.
  constexpr DWORD kAppend =
      (FILE_GENERIC_WRITE & ~static_cast<DWORD>(FILE_WRITE_DATA)) | FILE_READ_ATTRIBUTES;
  return Open(path, kAppend, kShareAll, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, ec);
}

bool OpensExclusively(const Path& path, std::error_code& ec) {
  return Open(path, GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, ec)
      .is_open();
}

}  // namespace zul::fs
