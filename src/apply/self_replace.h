#pragma once

// Replaces the updater's own file. The apply does not replace the executable that runs, so the new
// copy is placed beside it under a ".next" name. After the apply the copy is moved over the running
// file at once or, when that file is in use, by the system at its next start.

#include <functional>
#include <string>
#include <system_error>

#include "core/file_layer.h"

namespace zul {

/// The path of the new copy, beside `target`: stem, ".next" and extension, as in
/// qorva_updater.next.exe.
[[nodiscard]] fs::Path NextCopyPath(const fs::Path& target);

/// Moves one file over another. False with the reason in `ec`.
using UpdaterMove =
    std::function<bool(const fs::Path& from, const fs::Path& to, std::error_code& ec)>;

/// Moves `source` over `target` with one attempt. When `target` is locked, schedules the move for
/// the next start of the system, and `source` stays until then. False with the reason in `error`
/// (may be null). `move_now` and `move_later` are the file layer's by default.
[[nodiscard]] bool ReplaceUpdaterDeferred(
    const fs::Path& source, const fs::Path& target, std::string* error,
    const UpdaterMove& move_now = fs::MoveReplacing,
    const UpdaterMove& move_later = fs::MoveReplacingAtReboot);

}  // namespace zul
