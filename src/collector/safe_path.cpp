#include "collector/safe_path.h"

#include "core/file_layer.h"

namespace zul {

bool IsSafeDirectoryChain(const fs::Path& path) {
  // A drive alone ("C:x") is no root directory: the path does not name all the folders above it.
  if (!path.has_root_directory()) return false;
  fs::Path folder = path;
  for (;;) {
    std::error_code ec;
    if (fs::KindOf(folder, fs::Links::kDoNotFollow, ec) != fs::EntryKind::kDirectory) return false;
    fs::Path parent = folder.parent_path();
    if (parent.empty() || parent == folder) return true;
    folder = std::move(parent);
  }
}

bool IsSafeFile(const fs::Path& path) {
  std::error_code ec;
  return fs::KindOf(path, fs::Links::kDoNotFollow, ec) == fs::EntryKind::kRegular &&
         IsSafeDirectoryChain(path.parent_path());
}

}  // namespace zul
