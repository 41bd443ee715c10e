#pragma once

// The directories of an extraction, all siblings of its destination: the private stage that the
// entries are written to, and the backup that holds the previous tree. Also the renames that
// publish the stage and restore the backup.

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>

#include "core/keep_alive.h"
#include "core/path.h"

namespace zul {

/// Creates a new directory beside `base_path`, named "<prefix>.<monotonic ns>.<counter>.<attempt>",
/// and stores its path in `*path`. Creates missing parents. An existing directory is never taken.
/// `error` may be null.
[[nodiscard]] bool CreateUniqueSiblingDirectory(const fs::Path& base_path, std::string_view prefix,
                                                fs::Path* path, std::string* error);

/// True when this user may write `required_bytes` more to the volume of `stage_dir`. `error` may be
/// null.
[[nodiscard]] bool CheckFreeSpaceForExtraction(const fs::Path& stage_dir,
                                               std::uint64_t required_bytes, std::string* error);

/// True when `candidate` is below `root`, compared component by component without regard to ASCII
/// case. A path is not inside itself. Purely lexical.
[[nodiscard]] bool IsPathInsideRootFolded(const fs::Path& root, const fs::Path& candidate);

/// Waits between two tries.
using RetrySleep = std::function<void(std::chrono::milliseconds)>;

/// Renames. Tries again every 50 ms, up to 40 times, while another process seems to use the entry
/// (sharing violation, access denied, busy). Blocks.
[[nodiscard]] bool RenameWithRetry(const fs::Path& from, const fs::Path& to,
                                   std::error_code& error_code, const RetrySleep& sleep);

/// Publishes a complete stage at `destination` by one rename. A previous entry there is first moved
/// to "previous" in a backup directory, and moved back when the stage cannot be published. When
/// that fails too, the error says where the previous entry is. `error` may be null. `keep_alive` is
/// called during waits and removals; it may be empty.
[[nodiscard]] bool CommitExtractionDirectory(const fs::Path& stage_dir, const fs::Path& destination,
                                             std::string* error, const KeepAlive& keep_alive = {});

/// The number and the system's text of an error code, as messages quote them.
[[nodiscard]] std::string FormatFileError(const std::error_code& error_code);

}  // namespace zul
