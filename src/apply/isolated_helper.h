#pragma once

// The updater is installed in the folder that it must update. When it runs from there, it copies
// itself and the runtime libraries beside it to a new folder in the temporary folder, starts that
// copy with the same request, and ends. So no file of the installation is in use by the updater.
// The copy cannot remove its own folder; a later run removes folders that are older than a week.

#include <string>
#include <vector>

#include "core/file.h"
#include "core/path.h"
#include "request/update_request.h"

namespace zul {

/// A helper that is ready to be started.
struct IsolatedHelper {
  fs::Path helper;                            ///< the executable
  fs::Path runtime_dir;                       ///< its folder
  std::vector<std::string> copied_libraries;  ///< file names of the runtime libraries beside it
  fs::File folder_hold = {};  ///< see PrivateFolder::hold; open until the helper is started
};

/// Starts a copy outside the target folder when this process runs from that folder. On true,
/// `relaunched` says whether a copy was started; this process must then end. False with the reason
/// in `error` (may be null). Windows only.
[[nodiscard]] bool RelaunchFromTargetIfNeeded(const UpdateRequest& request, bool* relaunched,
                                              std::string* error);

/// Prepares a helper from `source_helper` and starts it with `request`. Does not wait for it. False
/// with the reason in `error` (may be null). Windows only.
[[nodiscard]] bool LaunchIsolatedHelper(const fs::Path& source_helper, const UpdateRequest& request,
                                        std::string* error);

/// Creates a new helper folder in the temporary folder and copies `source_helper` and the runtime
/// libraries beside it there. False with the reason in `error` (may be null) when one of the copies
/// fails; `prepared` is then empty. The folder is never removed here.
[[nodiscard]] bool PrepareIsolatedHelper(const fs::Path& source_helper, IsolatedHelper* prepared,
                                         std::string* error);

/// Removes helper folders that are at least 7 days old from the temporary folder. A folder that
/// cannot be removed stays until a later run.
void RemoveStaleHelperFolders();

}  // namespace zul
