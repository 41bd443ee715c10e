#pragma once

// Which executables are the application, and which running process is the application of this
// installation. The updater closes no other process.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/path.h"

namespace zul {

/// The text after the last "\" or "/" of a UTF-8 path text, on every system; empty when the text
/// ends with one of them.
[[nodiscard]] std::string_view FileNameOf(std::string_view path_text);

/// True for the application's four image names, without regard to ASCII letter case. (Ordinal case
/// folding maps no other character to a letter of these names.)
[[nodiscard]] bool IsApplicationImageName(std::string_view file_name);

/// A running process, as far as the system shows it.
struct ProcessEntry {
  std::uint32_t pid = 0;
  std::optional<fs::Path> image_path;  ///< the full path, when it can be read
  std::string name;                    ///< from the process list, UTF-8
};

/// True when the process runs one of the application's images from `target_dir`. Folders are
/// compared with links resolved, which reads the disk. When the image path is unknown, the name
/// alone decides.
[[nodiscard]] bool IsApplicationOwner(const ProcessEntry& process, const fs::Path& target_dir);

/// The full image path of a running process; nothing when it cannot be read, which is usual for
/// processes of other users.
[[nodiscard]] std::optional<fs::Path> ProcessImagePath(std::uint32_t pid);

}  // namespace zul
