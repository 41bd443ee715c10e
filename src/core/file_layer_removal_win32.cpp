// The removal of a tree. Another process may turn a folder into a link while the tree is removed,
// and the removal must never follow that link. So each folder is opened without following links and
// without delete sharing, which keeps the folder and those above it in their places. It is checked
// and listed through this handle, and its entries are opened relative to the handle: even when the
// folder itself is made a link meanwhile, they are its own entries.

#include <windows.h>

#include <winternl.h>

#include <array>

#include "core/api_path_win32.h"
#include "core/file_layer.h"
#include "core/folder_handle_win32.h"
#include "core/handle_win32.h"
#include "core/system_error.h"

namespace zul::fs {

namespace {

constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr ULONG kPinned = FILE_SHARE_READ | FILE_SHARE_WRITE;

UniqueFileHandle OpenByPath(const std::wstring& api_path, const EntryOpening& opening,
                            std::error_code& ec) {
  UniqueFileHandle handle(
      ::CreateFileW(api_path.c_str(), opening.access, opening.share, nullptr, OPEN_EXISTING,
                    FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  ec = handle ? std::error_code() : LastSystemError();
  return handle;
}

/// Removes the entry with this handle, which has DELETE access: a file, an empty folder or a link
/// itself. Its name is free when the handle is closed, where the system can do that while other
/// processes have the entry open, else when they have closed it.
bool RemoveOpenEntry(HANDLE handle, DWORD attributes, std::error_code& ec) {
  if ((attributes & FILE_ATTRIBUTE_READONLY) != 0) {
    FILE_BASIC_INFO basic{};  // a time of 0 stays as it is
    basic.FileAttributes = (attributes & ~DWORD{FILE_ATTRIBUTE_READONLY}) | FILE_ATTRIBUTE_NORMAL;
    ::SetFileInformationByHandle(handle, FileBasicInfo, &basic, sizeof basic);
  }
  // FILE_DISPOSITION_INFO_EX of Windows 10 1607, with FILE_DISPOSITION_FLAG_DELETE and
  // FILE_DISPOSITION_FLAG_POSIX_SEMANTICS.
  constexpr auto kDispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);
  DWORD flags = 0x1 | 0x2;
  FILE_DISPOSITION_INFO disposition{TRUE};
  const bool removed =
      ::SetFileInformationByHandle(handle, kDispositionInfoEx, &flags, sizeof flags) ||
      ::SetFileInformationByHandle(handle, FileDispositionInfo, &disposition, sizeof disposition);
  ec = removed ? std::error_code() : LastSystemError();
  return removed;
}

struct FoundEntry {
  std::wstring_view name;  ///< valid until the next entry
  DWORD attributes = 0;
};

/// The listing of an open folder.
class OpenFolderListing {
 public:
  /// Finds the next entry except "." and "..". False at the end and on an error.
  bool Next(HANDLE folder, FoundEntry* found, std::error_code& ec) {
    ec.clear();
    do {
      if (next_ == nullptr && !Fetch(folder, ec)) return false;
      const FILE_ID_BOTH_DIR_INFO& entry = *next_;
      found->name = {entry.FileName, entry.FileNameLength / sizeof(wchar_t)};
      found->attributes = entry.FileAttributes;
      next_ = entry.NextEntryOffset == 0 ? nullptr : At(&entry, entry.NextEntryOffset);
    } while (found->name == L"." || found->name == L"..");
    return true;
  }

 private:
  static const FILE_ID_BOTH_DIR_INFO* At(const void* start, std::size_t offset) {
    return reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(static_cast<const std::byte*>(start) +
                                                          offset);
  }

  bool Fetch(HANDLE folder, std::error_code& ec) {
    if (::GetFileInformationByHandleEx(folder, FileIdBothDirectoryInfo, buffer_.data(),
                                       static_cast<DWORD>(buffer_.size()))) {
      next_ = At(buffer_.data(), 0);
      return true;
    }
    ec = LastSystemError();
    // The root of an empty volume has no entries, not even "." and "..".
    if (ec.value() == ERROR_NO_MORE_FILES || ec.value() == ERROR_FILE_NOT_FOUND) ec.clear();
    return false;
  }

  alignas(FILE_ID_BOTH_DIR_INFO) std::array<std::byte, 16384> buffer_;
  const FILE_ID_BOTH_DIR_INFO* next_ = nullptr;  ///< in the buffer; null when it is used up
};

/// One removal of a tree. It has a stack of its own instead of recursion, because a tree may be
/// thousands of folders deep.
class TreeRemover {
 public:
  /// `keep_alive` is borrowed.
  TreeRemover(std::wstring root, const KeepAlive& keep_alive)
      : path_(std::move(root)), keep_alive_(keep_alive) {}

  /// Returns the first failure.
  std::error_code Run(DWORD root_attributes) {
    Begin(root_attributes, 0, [this](const EntryOpening& opening, std::error_code& ec) {
      return OpenByPath(path_, opening, ec);
    });
    while (!levels_.empty()) {
      Level& level = *levels_.back();
      FoundEntry entry;
      std::error_code ec;
      if (level.listing.Next(level.folder.get(), &entry, ec)) {
        Visit(level.folder.get(), entry);
        if (keep_alive_) keep_alive_();
      } else {
        Keep(ec);
        Leave();
      }
    }
    return first_;
  }

 private:
  struct Level {
    UniqueFileHandle folder;
    OpenFolderListing listing;
    std::size_t parent_length;
    DWORD attributes;
    bool removable;  ///< the handle has DELETE access
  };

  void Visit(HANDLE folder, const FoundEntry& entry) {
    const std::size_t parent_length = path_.size();
    path_ += L'\\';
    path_ += entry.name;
    const auto open = [&](EntryOpening opening, std::error_code& ec) {
      opening.options = FILE_OPEN_FOR_BACKUP_INTENT;
      return OpenInFolder(folder, entry.name, opening, ec);
    };
    if (!Begin(entry.attributes, parent_length, open)) path_.resize(parent_length);
  }

  /// Removes an entry that is not a folder. Opens a folder, as the new last level, and returns
  /// true. A folder that cannot be removed is emptied all the same.
  template <typename Open>
  bool Begin(DWORD attributes, std::size_t parent_length, Open&& open) {
    const bool is_folder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
                           (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
    EntryOpening opening{.access = DELETE | FILE_READ_ATTRIBUTES,
                         .share = is_folder ? kPinned : kShareAll};
    if (is_folder) opening.access |= FILE_LIST_DIRECTORY;
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0) opening.access |= FILE_WRITE_ATTRIBUTES;
    std::error_code ec;
    UniqueFileHandle handle = open(opening, ec);
    const bool removable = handle.valid();
    if (!removable) {
      Keep(ec);
      if (!is_folder) return false;
      handle = open({.access = FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES, .share = kPinned}, ec);
      if (!handle) return false;
    }
    if (is_folder && IsOwnFolder(handle.get(), path_)) {
      levels_.push_back(std::make_unique<Level>());
      Level& level = *levels_.back();
      level.folder = std::move(handle);
      level.parent_length = parent_length;
      level.attributes = attributes;
      level.removable = removable;
      return true;
    }
    if (removable && !RemoveOpenEntry(handle.get(), attributes, ec)) Keep(ec);
    return false;
  }

  void Leave() {
    const Level& level = *levels_.back();
    std::error_code ec;
    if (level.removable && !RemoveOpenEntry(level.folder.get(), level.attributes, ec)) Keep(ec);
    path_.resize(level.parent_length);
    levels_.pop_back();
  }

  void Keep(const std::error_code& ec) {
    if (!first_ && !IsNotFoundError(ec)) first_ = ec;
  }

  std::wstring path_;
  const KeepAlive& keep_alive_;
  std::vector<std::unique_ptr<Level>> levels_;
  std::error_code first_;
};

}  // namespace

bool RemoveTree(const Path& path, std::error_code& ec, const KeepAlive& keep_alive) {
  const std::wstring root = ApiPath(path);
  const DWORD attributes = ::GetFileAttributesW(root.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    ec = LastSystemError();
    if (IsNotFoundError(ec)) ec.clear();
    return !ec;
  }
  ec = TreeRemover(root, keep_alive).Run(attributes);
  // The calls also succeed for an entry that another process has open with delete sharing, and
  // under Wine for one on a read-only volume.
  if (!ec && ::GetFileAttributesW(root.c_str()) != INVALID_FILE_ATTRIBUTES) {
    ec = SystemError(ERROR_ACCESS_DENIED);
  }
  return !ec;
}

}  // namespace zul::fs
