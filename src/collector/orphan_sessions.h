#pragma once

// The sessions that earlier processes left: those whose process and observer are both gone.

#include <nlohmann/json.hpp>
#include <vector>

#include "core/file_layer.h"

namespace zul {

/// A session that nobody writes any more, with its incident record as it can be told now. The file
/// on disk is left as it is.
struct OrphanSession {
  fs::Path directory;
  nlohmann::json record;
};

/// At most this many are taken in one go; the rest waits for the next start.
inline constexpr std::size_t kOrphanSessionsMax = 32;

/// The orphans of a crash folder, oldest first. A session whose observer did not finish it is
/// marked incomplete and, since nobody will add to it, finalized; a crash record that no observer
/// saw is merged. Folders that are not sessions, and sessions without a readable incident record,
/// are passed over.
[[nodiscard]] std::vector<OrphanSession> FinalizeOrphanSessions(const fs::Path& crash_directory);

}  // namespace zul
