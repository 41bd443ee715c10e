#pragma once

// Entries of an open folder. What is opened relative to a folder's handle is the folder's own
// entry, even when a link has taken the folder's path meanwhile. For _win32.cpp files only.

#include <windows.h>

#include <string>
#include <string_view>
#include <system_error>

#include "core/handle_win32.h"

namespace zul::fs {

/// How an entry of a folder is opened: the parameters of NtCreateFile.
struct EntryOpening {
  ACCESS_MASK access = 0;
  ULONG share = 0;
  ULONG disposition = 1;  ///< FILE_OPEN
  ULONG options = 0;      ///< added to those for synchronous calls and for the link itself
};

/// Opens or creates the entry `name`, which has no separator, of an open folder. A link is opened
/// itself. Not valid after an error.
[[nodiscard]] UniqueFileHandle OpenInFolder(HANDLE folder, std::wstring_view name,
                                            const EntryOpening& opening, std::error_code& ec);

/// True when the handle is that of a folder which is not a link. `api_path` is its path: Wine shows
/// a link only by its path.
[[nodiscard]] bool IsOwnFolder(HANDLE handle, const std::wstring& api_path);

}  // namespace zul::fs
