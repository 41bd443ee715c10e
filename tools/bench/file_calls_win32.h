#pragma once

// The calls that file_costs.exe measures. Each works on one file and returns false on failure, with
// the system's last error.

#include <windows.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace zul::bench {

/// One file of 4 KB, and its handle while it is open.
struct Item {
  std::wstring folder_path;
  std::wstring backup_path;  ///< of the folder for the file's backup, which exists
  HANDLE folder = nullptr;   ///< open for the whole measurement
  std::wstring name;
  HANDLE file = INVALID_HANDLE_VALUE;

  [[nodiscard]] std::wstring path() const { return folder_path + L'\\' + name; }
  [[nodiscard]] std::wstring path_beside() const { return path() + L".new"; }
};

using Step = std::function<bool(Item*)>;

/// The names of `count` files in new folders of 80 below `root`. The folders exist, the files do
/// not. Empty when a folder cannot be created or opened.
[[nodiscard]] std::vector<Item> NewItems(const std::wstring& root, std::size_t count);

/// These steps, up to the first that fails.
[[nodiscard]] Step InTurn(std::vector<Step> steps);

// Opening. "InFolder" opens by the name relative to the open folder, the others by path.
bool Create(Item* item);
bool CreateInFolder(Item* item);
bool OpenForRead(Item* item);
bool OpenInFolderForRead(Item* item);
bool OpenUnshared(Item* item);  ///< for reading and writing

// With the open file.
bool Read(Item* item);
bool Write(Item* item);
bool Flush(Item* item);
bool Close(Item* item);
bool FinalPath(Item* item);
bool BasicFacts(Item* item);  ///< times and attributes
bool Identity(Item* item);    ///< volume and number of the file
bool SetTime(Item* item);

// By path.
bool Attributes(Item* item);
bool AttributesOfMissing(Item* item);
bool RenameToNew(Item* item);
bool RenameBack(Item* item);  ///< undoes RenameToNew
bool RenameOver(Item* item);  ///< the file that CopyBeside makes
bool Delete(Item* item);
bool ListFolder(Item* item);  ///< lists the folder once for all its files

// Several calls.
bool Make(Item* item);        ///< creates the file, writes and flushes it
bool CopyBeside(Item* item);  ///< a flushed copy in the same folder
bool BackUp(Item* item);      ///< a flushed copy in the folder for backups

}  // namespace zul::bench
