#pragma once

// Replacing the updater's own file, which the apply stage passes over while it runs. The new copy
// stands beside its target under a ".next" name; after the apply it is moved over the target at
// once or, when the target is in use, by the system at the next start.

#include <functional>
#include <string>
#include <system_error>

#include "core/file_layer.h"

namespace zul {

/// The name of the new copy: stem, ".next" and extension, as in qorva_updater.next.exe.
[[nodiscard]] fs::Path NextCopyPath(const fs::Path& target);

/// Moves one file over another; the code says why not.
using UpdaterMove =
    std::function<bool(const fs::Path& from, const fs::Path& to, std::error_code& ec)>;

/// Moves `source` over `target` with one attempt now and, for a target in use, arranges the move
/// for the next start of the system; `source` then stays until it. `error` (may be null) has the
/// reason on false. The two moves are the file layer's unless given.
[[nodiscard]] bool ReplaceUpdaterDeferred(
    const fs::Path& source, const fs::Path& target, std::string* error,
    const UpdaterMove& move_now = fs::MoveReplacing,
    const UpdaterMove& move_later = fs::MoveReplacingAtReboot);

}  // namespace zul
