#pragma once

// A fresh folder for one test, removed with it.

#include <map>
#include <string>
#include <string_view>

#include "core/file_layer.h"

namespace zul::test {

class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  [[nodiscard]] const fs::Path& path() const { return path_; }
  /// The path of `relative` (UTF-8) in the folder.
  [[nodiscard]] fs::Path operator/(std::string_view relative) const;

 private:
  fs::Path path_;
};

/// Writes a whole file, making its parents. Fails the test when it cannot.
void WriteFile(const fs::Path& path, std::string_view contents);

/// The whole file; fails the test when it cannot be read.
[[nodiscard]] std::string ReadFile(const fs::Path& path);

[[nodiscard]] bool Exists(const fs::Path& path);

/// The folder below `root` as "relative/path" lines with "/" behind folders, sorted.
[[nodiscard]] std::string ListTree(const fs::Path& root);

/// Relative path with "/" to contents.
using Files = std::map<std::string, std::string>;

/// What lies below a folder, without the folders themselves; nothing when there is none.
[[nodiscard]] Files FilesBelow(const fs::Path& root);

}  // namespace zul::test
