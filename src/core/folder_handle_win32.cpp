#include "core/folder_handle_win32.h"

#include <winternl.h>

#include "core/system_error.h"

namespace zul::fs {

static_assert(EntryOpening{}.disposition == FILE_OPEN);

UniqueFileHandle OpenInFolder(HANDLE folder, std::wstring_view name, const EntryOpening& opening,
                              std::error_code& ec) {
  UNICODE_STRING text{};
  text.Buffer = const_cast<wchar_t*>(name.data());
  text.Length = text.MaximumLength = static_cast<USHORT>(name.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes{};
  InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, folder, nullptr);
  IO_STATUS_BLOCK status_block{};
  HANDLE handle = INVALID_HANDLE_VALUE;
  const NTSTATUS status = ::NtCreateFile(
      &handle, opening.access | SYNCHRONIZE | FILE_READ_ATTRIBUTES, &attributes, &status_block,
      nullptr, FILE_ATTRIBUTE_NORMAL, opening.share, opening.disposition,
      opening.options | FILE_OPEN_REPARSE_POINT | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
  if (!NT_SUCCESS(status)) {
    ec = SystemError(::RtlNtStatusToDosError(status));
    return {};
  }
  ec.clear();
  return UniqueFileHandle(handle);
}

bool IsOwnFolder(HANDLE handle, const std::wstring& api_path) {
  FILE_BASIC_INFO info{};
  if (!::GetFileInformationByHandleEx(handle, FileBasicInfo, &info, sizeof info)) return false;
  const DWORD by_path = ::GetFileAttributesW(api_path.c_str());
  const bool is_link_by_path =
      by_path != INVALID_FILE_ATTRIBUTES && (by_path & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
  return !is_link_by_path && (info.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0 &&
         (info.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

}  // namespace zul::fs
