#pragma once

// The directories that an extraction works in, all siblings of its destination: the private stage
// that is filled, the backup that keeps a displaced tree, and the renames that publish the one and
// restore the other.

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>

#include "core/path.h"

namespace zul {

/// Creates a directory beside `base_path` that did not exist before, named
/// "<prefix>.<monotonic ns>.<counter>.<attempt>", making its parents where needed. `error` may be
/// null.
[[nodiscard]] bool CreateUniqueSiblingDirectory(const fs::Path& base_path, std::string_view prefix,
                                                fs::Path* path, std::string* error);

/// True when this user may still write `required_bytes` on the volume of `stage_dir`. `error` may
/// be null.
[[nodiscard]] bool CheckFreeSpaceForExtraction(const fs::Path& stage_dir,
                                               std::uint64_t required_bytes, std::string* error);

/// True when `candidate` lies below `root`, compared component by component with A to Z folded. A
/// path is not inside itself.
[[nodiscard]] bool IsPathInsideRootFolded(const fs::Path& root, const fs::Path& candidate);

using RetrySleep = std::function<void(std::chrono::milliseconds)>;

/// Sleeps for real.
void SleepBetweenRetries(std::chrono::milliseconds duration);

/// Renames, trying again every 50 ms for up to 2 s while the failure looks like another process
/// that will soon let go.
[[nodiscard]] bool RenameWithRetry(const fs::Path& from, const fs::Path& to,
                                   std::error_code& error_code,
                                   const RetrySleep& sleep = SleepBetweenRetries);

/// Publishes a complete stage at `destination`. What stood there is moved to "previous" in a backup
/// directory first and put back when the stage cannot be published; should that fail too, the text
/// says where it is. `error` may be null.
[[nodiscard]] bool CommitExtractionDirectory(const fs::Path& stage_dir, const fs::Path& destination,
                                             std::string* error,
                                             const RetrySleep& sleep = SleepBetweenRetries);

/// "code=<number>, message='<the system's text>'".
[[nodiscard]] std::string FormatFileError(const std::error_code& error_code);

}  // namespace zul
