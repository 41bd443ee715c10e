#pragma once

// The paths on which evidence is written, read and deleted: none that leads through a link or a
// junction. The folders belong to the user, so any program of that user could create a link there.

#include <string_view>

#include "core/path.h"

namespace zul {

/// True when `path` and every folder above it, up to the root, exist and are folders, not links or
/// junctions. A path without a root directory is not safe. On Windows a share is a root, too, and
/// is not queried. Queries the disk once per level.
[[nodiscard]] bool IsSafeDirectoryChain(const fs::Path& path);

/// True for the path `\\server\share`, with either separator and with or without one at the end.
/// The prefixes `\\?\` and `\\.\` name no server. Lexical.
[[nodiscard]] bool IsShareRoot(std::string_view path);

/// True when `path` is a regular file, not a link, in a safe folder.
[[nodiscard]] bool IsSafeFile(const fs::Path& path);

}  // namespace zul
