#pragma once

// A new folder in the temporary folder for the files of this process. Every process of the user may
// write in the temporary folder. That is no danger from processes with the same rights; but what an
// elevated process runs or installs must not come from one with fewer rights. So an elevated
// process protects its folder.

#include <string_view>

#include "core/file.h"
#include "core/path.h"

namespace zul {

/// The rights of a process that decide about the protection of its folders.
struct ProcessRights {
  bool is_elevated = false;       ///< TokenElevation of its token
  bool is_administrator = false;  ///< the Administrators group is enabled in its token
};

/// The security descriptor of a private folder, as a text of the platform's security descriptor
/// definition language (SDDL), for the folder and everything below it. Empty when the folder gets
/// the one that its parent folder gives.
[[nodiscard]] std::string_view PrivateFolderSecurity(const ProcessRights& rights);

struct PrivateFolder {
  fs::Path path;  ///< empty when the folder could not be created
  /// Open for a protected folder. Until it is closed, the folder cannot be renamed or removed, and
  /// so no other folder can take its place.
  fs::File hold;
};

/// Creates a folder "<prefix><count of the monotonic clock in ns><suffix>" that did not exist, and
/// the temporary folder where it is missing. Where the system refuses the protection, the folder
/// has none, and the log says so.
[[nodiscard]] PrivateFolder CreatePrivateFolder(std::string_view prefix,
                                                std::string_view suffix = {});

/// As CreatePrivateFolder, with the given path, whose parent must exist.
[[nodiscard]] PrivateFolder CreatePrivateFolderAt(const fs::Path& path);

}  // namespace zul
