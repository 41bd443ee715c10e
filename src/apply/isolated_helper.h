#pragma once

// The updater is installed inside the folder that it must update. When it runs from there it copies
// itself, with the runtime libraries beside it, into a private temporary folder, starts that copy
// with the same request and ends, so that nothing of the folder is held. Helper folders of more
// than a week ago are removed on the way.

#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "core/path.h"
#include "request/update_request.h"

namespace zul {

/// Libraries that are copied with the updater where they stand beside it: candidates, not
/// requirements.
[[nodiscard]] const std::array<std::string_view, 44>& HelperRuntimeLibraries();

/// A helper that stands ready in its own folder.
struct IsolatedHelper {
  fs::Path helper;
  fs::Path runtime_dir;
  std::vector<std::string> copied_libraries;  ///< in the table's order
};

/// Starts a copy outside when this process runs from the request's target folder; `relaunched` then
/// says that this process must end. True with `relaunched` false: carry on here. `error` (may be
/// null) has the reason on false. Windows only.
[[nodiscard]] bool RelaunchFromTargetIfNeeded(const UpdateRequest& request, bool& relaunched,
                                              std::string* error);

/// Prepares a helper from `source_helper` and starts it with `request`; not waited for. Windows
/// only.
[[nodiscard]] bool LaunchIsolatedHelper(const fs::Path& source_helper, const UpdateRequest& request,
                                        std::string* error);

/// Makes a new helper folder in the temporary folder and copies the helper and its libraries there.
/// A failed copy fails the whole. `error` may be null.
[[nodiscard]] bool PrepareIsolatedHelper(const fs::Path& source_helper, IsolatedHelper& prepared,
                                         std::string* error);

/// Removes helper folders that are at least 7 days old from the temporary folder. Whatever cannot
/// be removed stays until a later run.
void RemoveStaleHelperFolders();

}  // namespace zul
