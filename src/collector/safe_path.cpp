#include "collector/safe_path.h"

#include <algorithm>

#include "core/file_layer.h"
#include "core/text.h"

namespace zul {

namespace {

/// Windows names a folder of a server `\\server\share\folder`.
constexpr bool kHasShares = fs::Path::preferred_separator == '\\';

}  // namespace

bool IsShareRoot(std::string_view path) {
  constexpr std::string_view kSeparators = "\\/";
  const auto is_separator = [&](std::size_t i) {
    return i < path.size() && kSeparators.find(path[i]) != std::string_view::npos;
  };
  if (!is_separator(0) || !is_separator(1) || is_separator(2)) return false;
  const std::size_t server_end = path.find_first_of(kSeparators, 2);
  const std::string_view server = path.substr(2, server_end - 2);
  if (server_end == std::string_view::npos || server == "?" || server == ".") return false;
  const std::size_t share = server_end + 1;
  const std::size_t share_end = std::min(path.find_first_of(kSeparators, share), path.size());
  return share_end > share && share_end + 1 >= path.size();
}

bool IsSafeDirectoryChain(const fs::Path& path) {
  // A drive alone ("C:x") is no root directory: the path does not name all the folders above it.
  if (!path.has_root_directory()) return false;
  fs::Path folder = path;
  for (;;) {
    // A share is a root: the server above it is no folder. The user may not be allowed to query the
    // share itself.
    if (kHasShares && IsShareRoot(PathToUtf8(folder))) return true;
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
