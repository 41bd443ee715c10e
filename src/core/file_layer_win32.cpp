#include "core/file_layer.h"

#include <windows.h>

#include "core/api_path_win32.h"
#include "core/handle_win32.h"
#include "core/system_error.h"

namespace zul::fs {

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

/// The outcome of a call that returns zero on failure.
bool Succeeded(BOOL result, std::error_code& ec) {
  ec = result ? std::error_code() : LastSystemError();
  return result != FALSE;
}

/// True for the codes of a server or share that does not answer.
bool MeansUnreachable(const std::error_code& ec) {
  return ec.value() == ERROR_BAD_NETPATH || ec.value() == ERROR_BAD_NET_NAME;
}

/// Opens a file or folder for queries. Links are followed unless `flags` contain
/// FILE_FLAG_OPEN_REPARSE_POINT. An open for attributes only never gets a sharing violation.
UniqueFileHandle OpenForQuery(const wchar_t* api_path, DWORD flags, std::error_code& ec) {
  UniqueFileHandle handle(::CreateFileW(api_path, FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | flags,
                                        nullptr));
  ec = handle ? std::error_code() : LastSystemError();
  return handle;
}

bool QueryFollowing(const std::wstring& api_path, BY_HANDLE_FILE_INFORMATION* information,
                    std::error_code& ec) {
  const UniqueFileHandle handle = OpenForQuery(api_path.c_str(), 0, ec);
  return handle && Succeeded(::GetFileInformationByHandle(handle.get(), information), ec);
}

EntryKind KindOfAttributes(DWORD attributes) {
  if ((attributes & FILE_ATTRIBUTE_DEVICE) != 0) return EntryKind::kOther;
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? EntryKind::kDirectory : EntryKind::kRegular;
}

/// The kind for a failed query. Clears `ec` for kNotFound.
EntryKind KindOfFailure(std::error_code& ec) {
  if (!MeansNothingThere(ec)) return EntryKind::kUnknown;
  ec.clear();
  return EntryKind::kNotFound;
}

Path FinalPathOf(HANDLE handle, std::error_code& ec) {
  wchar_t buffer[512];
  ec.clear();
  DWORD length = ::GetFinalPathNameByHandleW(handle, buffer, std::size(buffer), 0);
  if (length > 0 && length < std::size(buffer)) return PathFromApi({buffer, length});
  std::wstring large;
  while (length > large.size()) {
    large.resize(length);
    length = ::GetFinalPathNameByHandleW(handle, large.data(), length, 0);
  }
  if (length == 0) {
    ec = LastSystemError();
    return {};
  }
  return PathFromApi({large.data(), length});
}

/// The path of an existing entry with every link resolved.
Path FinalPath(const wchar_t* api_path, std::error_code& ec) {
  const UniqueFileHandle handle = OpenForQuery(api_path, 0, ec);
  return handle ? FinalPathOf(handle.get(), ec) : Path();
}

std::uint64_t Join(DWORD high, DWORD low) {
  return (std::uint64_t{high} << 32) | low;
}

std::uint64_t Ticks(const FILETIME& time) {
  return Join(time.dwHighDateTime, time.dwLowDateTime);
}

bool Move(const Path& from, const Path& to, DWORD flags, std::error_code& ec) {
  return Succeeded(::MoveFileExW(ApiPath(from).c_str(), ApiPath(to).c_str(), flags), ec);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Entries

EntryKind KindOf(const Path& path, Links links, std::error_code& ec) {
  const std::wstring api_path = ApiPath(path);
  const DWORD attributes = ::GetFileAttributesW(api_path.c_str());
  if (!Succeeded(attributes != INVALID_FILE_ATTRIBUTES, ec)) return KindOfFailure(ec);
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) return KindOfAttributes(attributes);
  // A mounted volume's root carries the attribute of a reparse point too, but it is not a link.
  if (IsApiRoot(api_path)) return EntryKind::kDirectory;
  if (links == Links::kDoNotFollow) return EntryKind::kLink;
  BY_HANDLE_FILE_INFORMATION target;
  if (!QueryFollowing(api_path, &target, ec)) return KindOfFailure(ec);
  return KindOfAttributes(target.dwFileAttributes);
}

PathProbe ProbePath(const Path& path) {
  PathProbe probe;
  const std::wstring api_path = ApiPath(path);
  BY_HANDLE_FILE_INFORMATION information;
  if (QueryFollowing(api_path, &information, probe.system_error)) {
    probe.kind = PathProbe::kExists;
    probe.is_directory = (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  } else if (IsNotFoundError(probe.system_error)) {
    // For a dangling link the link itself opens.
    if (OpenForQuery(api_path.c_str(), FILE_FLAG_OPEN_REPARSE_POINT, probe.system_error)) {
      probe.kind = PathProbe::kUnresolvedReparsePoint;
    } else if (IsNotFoundError(probe.system_error)) {
      probe.kind = PathProbe::kMissing;
    }
  }
  return probe;
}

bool IsSameFile(const Path& a, const Path& b, std::error_code& ec) {
  // Both files stay open during the comparison: a file index is unique among existing files only.
  const UniqueFileHandle first = OpenForQuery(ApiPath(a).c_str(), 0, ec);
  if (!first) return false;
  const UniqueFileHandle second = OpenForQuery(ApiPath(b).c_str(), 0, ec);
  if (!second) return false;
  BY_HANDLE_FILE_INFORMATION x;
  BY_HANDLE_FILE_INFORMATION y;
  return Succeeded(::GetFileInformationByHandle(first.get(), &x), ec) &&
         Succeeded(::GetFileInformationByHandle(second.get(), &y), ec) &&
         x.dwVolumeSerialNumber == y.dwVolumeSerialNumber && x.nFileIndexHigh == y.nFileIndexHigh &&
         x.nFileIndexLow == y.nFileIndexLow;
}

std::chrono::seconds AgeOf(const Path& path, std::error_code& ec) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!Succeeded(::GetFileAttributesExW(ApiPath(path).c_str(), GetFileExInfoStandard, &data), ec)) {
    return {};
  }
  FILETIME now;
  ::GetSystemTimeAsFileTime(&now);
  constexpr std::int64_t kTicksPerSecond = 10'000'000;
  return std::chrono::seconds((static_cast<std::int64_t>(Ticks(now)) -
                               static_cast<std::int64_t>(Ticks(data.ftLastWriteTime))) /
                              kTicksPerSecond);
}

std::uint64_t SizeOf(const Path& path, std::error_code& ec) {
  const std::wstring api_path = ApiPath(path);
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!Succeeded(::GetFileAttributesExW(api_path.c_str(), GetFileExInfoStandard, &data), ec)) {
    return 0;
  }
  if ((data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    BY_HANDLE_FILE_INFORMATION target;
    if (!QueryFollowing(api_path, &target, ec)) return 0;
    data.dwFileAttributes = target.dwFileAttributes;
    data.nFileSizeHigh = target.nFileSizeHigh;
    data.nFileSizeLow = target.nFileSizeLow;
  }
  if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    ec = SystemError(ERROR_ACCESS_DENIED);  // as CreateFileW gives for a folder
    return 0;
  }
  return Join(data.nFileSizeHigh, data.nFileSizeLow);
}

std::uint64_t AvailableSpace(const Path& path, std::error_code& ec) {
  ULARGE_INTEGER available;
  if (!Succeeded(::GetDiskFreeSpaceExW(ApiPath(path).c_str(), &available, nullptr, nullptr), ec)) {
    return 0;
  }
  return available.QuadPart;
}

bool VolumeOf(const Path& folder, Volume* volume, std::error_code& ec) {
  // Resolved first: the call for the root looks at the text of a path that leads through a link.
  const std::wstring resolved = ApiPath(FinalPath(ApiPath(folder).c_str(), ec));
  if (ec) return false;
  volume->available_bytes = AvailableSpace(folder, ec);
  if (ec) return false;
  std::wstring root(resolved.size() + 2, L'\0');  // a separator may be added
  if (!Succeeded(
          ::GetVolumePathNameW(resolved.c_str(), root.data(), static_cast<DWORD>(root.size())),
          ec)) {
    return false;
  }
  root.resize(root.find(L'\0'));
  volume->root = PathFromApi(root);
  DWORD sectors = 0;
  DWORD sector_bytes = 0;
  DWORD free_clusters = 0;
  DWORD clusters = 0;
  if (!Succeeded(
          ::GetDiskFreeSpaceW(root.c_str(), &sectors, &sector_bytes, &free_clusters, &clusters),
          ec)) {
    return false;
  }
  volume->cluster_bytes = std::uint64_t{sectors} * sector_bytes;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Resolved paths, of open files too

Path File::Whereabouts(std::error_code& ec) const {
  return FinalPathOf(reinterpret_cast<HANDLE>(handle_), ec);  // NOLINT(performance-no-int-to-ptr)
}

Path Canonical(const Path& path, std::error_code& ec) {
  return FinalPath(ApiPath(path).c_str(), ec);
}

Path WeaklyCanonical(const Path& path, std::error_code& ec) {
  std::wstring existing = AbsoluteApiPath(path);
  if (existing.empty()) {
    ec = SystemError(ERROR_INVALID_NAME);
    return {};
  }
  const std::size_t root_length = ApiRootLength(existing);
  std::wstring rest;  // with its leading separator
  for (;;) {
    Path resolved = FinalPath(existing.c_str(), ec);
    if (!ec) {
      if (rest.empty()) return resolved;
      std::wstring text = resolved.native();
      if (text.ends_with(L'\\')) text.pop_back();
      return text + rest;
    }
    if (!MeansNothingThere(ec) && !MeansUnreachable(ec)) return {};
    if (existing.size() <= root_length) break;
    const std::size_t cut = existing.rfind(L'\\');
    rest.insert(0, existing, cut);
    // A root keeps its separator: "C:" is the current directory of the drive.
    existing.resize(cut < root_length ? root_length : cut);
  }
  // The volume itself is missing.
  ec.clear();
  if (existing.ends_with(L'\\') && !rest.empty()) existing.pop_back();
  return PathFromApi(existing + rest);
}

Path CurrentDirectory(std::error_code& ec) {
  std::wstring text(260, L'\0');
  for (;;) {
    const DWORD length = ::GetCurrentDirectoryW(static_cast<DWORD>(text.size()), text.data());
    if (!Succeeded(length != 0, ec)) return {};
    const bool fits = length < text.size();
    text.resize(length);
    if (fits) return text;
  }
}

// ---------------------------------------------------------------------------------------------
// Folders

CreateResult CreateDirectoryOnce(const Path& path, std::error_code& ec) {
  if (Succeeded(::CreateDirectoryW(ApiPath(path).c_str(), nullptr), ec)) {
    return CreateResult::kCreated;
  }
  return IsExistsError(ec) ? CreateResult::kExisted : CreateResult::kFailed;
}

bool FlushDirectory(const Path& path, std::error_code& ec) {
  const Path folder = path.empty() ? CurrentDirectory(ec) : path;
  if (folder.empty()) return false;
  const UniqueFileHandle handle(::CreateFileW(ApiPath(folder).c_str(), FILE_READ_DATA, kShareAll,
                                              nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS,
                                              nullptr));
  return Succeeded(handle.valid(), ec) && Succeeded(::FlushFileBuffers(handle.get()), ec);
}

// ---------------------------------------------------------------------------------------------
// Copies and moves

bool CopyFileTo(const Path& from, const Path& to, std::error_code& ec) {
  return Succeeded(::CopyFileW(ApiPath(from).c_str(), ApiPath(to).c_str(), FALSE), ec);
}

bool Rename(const Path& from, const Path& to, std::error_code& ec) {
  return Move(from, to, 0, ec);
}

bool MoveReplacing(const Path& from, const Path& to, std::error_code& ec) {
  return Move(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH,
              ec);
}

bool MoveReplacingWhole(const Path& from, const Path& to, std::error_code& ec) {
  return Move(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH, ec);
}

bool MoveReplacingAtReboot(const Path& from, const Path& to, std::error_code& ec) {
  return Move(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_DELAY_UNTIL_REBOOT, ec);
}

bool MoveToNewName(const Path& from, const Path& to, std::error_code& ec) {
  return Move(from, to, MOVEFILE_WRITE_THROUGH, ec);
}

// ---------------------------------------------------------------------------------------------
// Removal

bool Remove(const Path& path, std::error_code& ec) {
  const std::wstring api_path = ApiPath(path);
  if (Succeeded(::DeleteFileW(api_path.c_str()), ec)) return true;
  if (ec.value() == ERROR_ACCESS_DENIED) {
    // DeleteFileW gives this code for a folder and for a link to a folder.
    const DWORD attributes = ::GetFileAttributesW(api_path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
        Succeeded(::RemoveDirectoryW(api_path.c_str()), ec)) {
      return true;
    }
  }
  if (MeansNothingThere(ec)) ec.clear();
  return false;
}

}  // namespace zul::fs
