#pragma once

// The sessions of earlier processes: those whose process and observer have both ended.

#include <nlohmann/json.hpp>
#include <vector>

#include "core/path.h"

namespace zul {

/// A session that no process writes any more, and its incident record with what is known now. The
/// file on disk stays unchanged.
struct OrphanSession {
  fs::Path directory;
  nlohmann::json record;
};

/// The orphans of a crash folder, oldest first, at most 32; the others remain for the next start. A
/// record that its observer did not finish is marked incomplete and also finalized, since no
/// process will add to it. A crash that is only in emergency.bin is merged. Folders that are no
/// sessions, and sessions without a readable incident record, are skipped.
[[nodiscard]] std::vector<OrphanSession> FinalizeOrphanSessions(const fs::Path& crash_directory);

}  // namespace zul
