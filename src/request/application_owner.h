#pragma once

// Which running process is the application of this installation, so that the updater may close it
// and nothing else.

#include <cstdint>
#include <optional>
#include <string>

#include "core/path.h"

namespace zul {

/// What the decision looks at.
struct ProcessEntry {
  std::uint32_t pid = 0;
  std::optional<fs::Path> image_path;  ///< full path, when it can be read
  std::string name;                    ///< from the process list, UTF-8
};

/// True when the process runs one of the application's images from `target_dir`. When its image
/// path cannot be read the name alone decides. Asks the disk where both folders really are.
[[nodiscard]] bool IsApplicationOwner(const ProcessEntry& process, const fs::Path& target_dir);

/// Full path of a running process's image; nothing when it cannot be read, which is usual for
/// processes of other users.
[[nodiscard]] std::optional<fs::Path> ProcessImagePath(std::uint32_t pid);

}  // namespace zul
