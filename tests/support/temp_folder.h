#pragma once

// A new folder for one test, and its files.

#include <map>
#include <string>
#include <string_view>

#include "core/file_layer.h"

namespace zul::test {

/// A new folder in the temporary folder. The destructor removes it.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  /// Its path with every link resolved.
  [[nodiscard]] const fs::Path& path() const { return path_; }
  /// The path of `relative` (UTF-8) in the folder.
  [[nodiscard]] fs::Path operator/(std::string_view relative) const;

 private:
  fs::Path path_;
};

// Each of the following throws, and so fails the test, when the file system reports an error.

/// Writes a whole file, and creates its parents.
void WriteFile(const fs::Path& path, std::string_view contents);

/// The contents of a file.
[[nodiscard]] std::string ReadFile(const fs::Path& path);

/// True when there is an entry at `path`, also a dangling link.
[[nodiscard]] bool Exists(const fs::Path& path);

/// The tree below `root`, a sorted line for each entry: its relative path, with "/" after a folder.
[[nodiscard]] std::string ListTree(const fs::Path& root);

/// Relative paths, with "/" as the separator, and contents.
using Files = std::map<std::string, std::string>;

/// The files below `root`. None when `root` does not exist.
[[nodiscard]] Files FilesBelow(const fs::Path& root);

}  // namespace zul::test
