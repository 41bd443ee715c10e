#include "collector/safe_path.h"

namespace zul {

bool IsSafeDirectoryChain(const fs::Path& path) {
  // A drive alone ("C:x") is no root: the folders above that path do not show in it.
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

std::string ReadStart(const fs::Path& path, std::size_t size) {
  std::error_code ec;
  fs::File file = fs::OpenForRead(path, ec);
  if (!file.is_open()) return {};
  std::string bytes(size, '\0');
  std::size_t filled = 0;
  while (filled < size) {
    std::size_t read = 0;
    if (!file.Read(bytes.data() + filled, size - filled, &read, ec)) return {};
    if (read == 0) break;
    filled += read;
  }
  bytes.resize(filled);
  return bytes;
}

}  // namespace zul
