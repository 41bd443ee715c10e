#pragma once

// Which places evidence may be written to, read from and deleted in: none that is reached through a
// link. The folders are the user's, so whoever runs as that user could plant one.

#include <cstddef>
#include <string>

#include "core/file_layer.h"

namespace zul {

/// True when `path` and every folder above it, up to the root, exist and are folders themselves,
/// not links or junctions to one. A path without a root is not safe. Asks the disk once a level.
[[nodiscard]] bool IsSafeDirectoryChain(const fs::Path& path);

/// True when `path` is a regular file, not a link, in a safe folder.
[[nodiscard]] bool IsSafeFile(const fs::Path& path);

/// Up to `size` bytes from the start of a file; empty also when it cannot be read to there.
[[nodiscard]] std::string ReadStart(const fs::Path& path, std::size_t size);

}  // namespace zul
