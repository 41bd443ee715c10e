#include "tools/bench/file_calls_win32.h"

#include <winternl.h>

#include <algorithm>
#include <array>
#include <utility>

namespace zul::bench {

namespace {

constexpr std::size_t kFilesInFolder = 80;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr std::array<char, 4096> kContent{};

HANDLE OpenFolder(const std::wstring& path) {
  return ::CreateFileW(path.c_str(), FILE_LIST_DIRECTORY | FILE_TRAVERSE, kShareAll, nullptr,
                       OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

bool Open(Item* item, DWORD access, DWORD sharing, DWORD disposition) {
  item->file = ::CreateFileW(item->path().c_str(), access, sharing, nullptr, disposition,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
  return item->file != INVALID_HANDLE_VALUE;
}

bool OpenInFolder(Item* item, ACCESS_MASK access, ULONG sharing, ULONG disposition) {
  UNICODE_STRING name{};
  name.Buffer = item->name.data();
  name.Length = static_cast<USHORT>(item->name.size() * sizeof(wchar_t));
  name.MaximumLength = name.Length;
  OBJECT_ATTRIBUTES attributes{};
  attributes.Length = sizeof attributes;
  attributes.RootDirectory = item->folder;
  attributes.ObjectName = &name;
  attributes.Attributes = OBJ_CASE_INSENSITIVE;
  IO_STATUS_BLOCK status{};
  const NTSTATUS result =
      ::NtCreateFile(&item->file, access | SYNCHRONIZE | FILE_READ_ATTRIBUTES, &attributes, &status,
                     nullptr, FILE_ATTRIBUTE_NORMAL, sharing, disposition,
                     FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr, 0);
  ::SetLastError(::RtlNtStatusToDosError(result));
  return NT_SUCCESS(result);
}

/// A flushed copy of the file.
bool CopyTo(Item* item, const std::wstring& folder_path, const std::wstring& name) {
  Item copy = *item;
  copy.folder_path = folder_path;
  copy.name = name;
  return OpenForRead(item) && Create(&copy) && Read(item) && Write(&copy) && Flush(&copy) &&
         Close(&copy) && Close(item);
}

}  // namespace

std::vector<Item> NewItems(const std::wstring& root, std::size_t count) {
  static int sets = 0;
  const std::wstring set = root + L"\\set_" + std::to_wstring(sets++);
  if (!::CreateDirectoryW(set.c_str(), nullptr)) return {};
  std::vector<Item> items(count);
  for (std::size_t i = 0; i < count; ++i) {
    Item& item = items[i];
    if (i % kFilesInFolder == 0) {
      item.folder_path = set + L"\\book_" + std::to_wstring(i / kFilesInFolder);
      item.backup_path = item.folder_path + L"_backup";
      if (!::CreateDirectoryW(item.folder_path.c_str(), nullptr) ||
          !::CreateDirectoryW(item.backup_path.c_str(), nullptr)) {
        return {};
      }
      item.folder = OpenFolder(item.folder_path);
      if (item.folder == INVALID_HANDLE_VALUE) return {};
    } else {
      item = items[i - 1];
    }
    item.name = L"colour_" + std::to_wstring(i) + L".json";
  }
  return items;
}

Step InTurn(std::vector<Step> steps) {
  return [steps = std::move(steps)](Item* item) {
    return std::all_of(steps.begin(), steps.end(), [item](const Step& step) { return step(item); });
  };
}

bool Create(Item* item) {
  return Open(item, GENERIC_WRITE, 0, CREATE_NEW);
}

bool CreateInFolder(Item* item) {
  return OpenInFolder(item, GENERIC_WRITE, 0, FILE_CREATE);
}

bool OpenForRead(Item* item) {
  return Open(item, GENERIC_READ, kShareAll, OPEN_EXISTING);
}

bool OpenInFolderForRead(Item* item) {
  return OpenInFolder(item, GENERIC_READ, kShareAll, FILE_OPEN);
}

bool OpenUnshared(Item* item) {
  return Open(item, GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING);
}

bool Read(Item* item) {
  std::array<char, kContent.size()> content;
  DWORD read = 0;
  return ::ReadFile(item->file, content.data(), content.size(), &read, nullptr) &&
         read == content.size();
}

bool Write(Item* item) {
  DWORD written = 0;
  return ::WriteFile(item->file, kContent.data(), kContent.size(), &written, nullptr) &&
         written == kContent.size();
}

bool Flush(Item* item) {
  return ::FlushFileBuffers(item->file) != FALSE;
}

bool Close(Item* item) {
  return ::CloseHandle(std::exchange(item->file, INVALID_HANDLE_VALUE)) != FALSE;
}

bool FinalPath(Item* item) {
  std::array<wchar_t, 1024> path;
  return ::GetFinalPathNameByHandleW(item->file, path.data(), path.size(), 0) != 0;
}

bool BasicFacts(Item* item) {
  FILE_BASIC_INFO facts;
  return ::GetFileInformationByHandleEx(item->file, FileBasicInfo, &facts, sizeof facts) != FALSE;
}

bool Identity(Item* item) {
  BY_HANDLE_FILE_INFORMATION information;
  return ::GetFileInformationByHandle(item->file, &information) != FALSE;
}

bool SetTime(Item* item) {
  FILE_BASIC_INFO facts{};
  facts.LastWriteTime.QuadPart = 0x01D7000000000000;  // in the year 2021
  facts.FileAttributes = FILE_ATTRIBUTE_ARCHIVE;
  return ::SetFileInformationByHandle(item->file, FileBasicInfo, &facts, sizeof facts) != FALSE;
}

bool Attributes(Item* item) {
  return ::GetFileAttributesW(item->path().c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool AttributesOfMissing(Item* item) {
  return ::GetFileAttributesW(item->path_beside().c_str()) == INVALID_FILE_ATTRIBUTES;
}

bool RenameToNew(Item* item) {
  return ::MoveFileExW(item->path().c_str(), item->path_beside().c_str(), MOVEFILE_WRITE_THROUGH);
}

bool RenameBack(Item* item) {
  return ::MoveFileExW(item->path_beside().c_str(), item->path().c_str(), 0);
}

bool RenameOver(Item* item) {
  return ::MoveFileExW(item->path_beside().c_str(), item->path().c_str(),
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
}

bool Delete(Item* item) {
  return ::DeleteFileW(item->path().c_str()) != FALSE;
}

bool ListFolder(Item* item) {
  if (std::stoul(item->name.substr(item->name.find(L'_') + 1)) % kFilesInFolder != 0) return true;
  WIN32_FIND_DATAW found;
  const HANDLE search =
      ::FindFirstFileExW((item->folder_path + L"\\*").c_str(), FindExInfoBasic, &found,
                         FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
  if (search == INVALID_HANDLE_VALUE) return false;
  while (::FindNextFileW(search, &found)) {
  }
  return ::FindClose(search) != FALSE;
}

bool Make(Item* item) {
  return Create(item) && Write(item) && Flush(item) && Close(item);
}

bool CopyBeside(Item* item) {
  return CopyTo(item, item->folder_path, item->name + L".new");
}

bool BackUp(Item* item) {
  return CopyTo(item, item->backup_path, item->name);
}

}  // namespace zul::bench
