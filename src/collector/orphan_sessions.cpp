#include "collector/orphan_sessions.h"

#include <optional>

#include "collector/emergency_record.h"
#include "collector/evidence_record.h"
#include "collector/process_life.h"
#include "collector/session_directory.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::size_t kOrphanSessionsMax = 32;

/// A running observer finishes its session itself.
bool HasLivingObserver(const fs::Path& session) {
  json collector;
  if (!ReadEvidenceRecord(session / kCollectorFile, &collector, nullptr)) return false;
  const std::optional<ProcessKey> observer = ProcessKeyOf(collector);
  return observer && IsProcessAlive(*observer);
}

/// The incident record of a session whose process and observer have ended.
std::optional<json> OrphanRecord(const fs::Path& session) {
  json record;
  if (!ReadEvidenceRecord(session / kIncidentFile, &record, nullptr)) return std::nullopt;
  const std::optional<ProcessKey> observed = ProcessKeyOf(record);
  const auto finalized = record.find("finalized");
  if (!observed || finalized == record.end()) return std::nullopt;
  if (IsProcessAlive(*observed) || HasLivingObserver(session)) return std::nullopt;
  if (*finalized != true) {
    record["capture_status"] = "incomplete";
    record["capture_error"] = "collector_did_not_finalize";
    record["finalized"] = true;
  }
  ReadEmergencyFile(session, &record);
  return record;
}

}  // namespace

std::vector<OrphanSession> FinalizeOrphanSessions(const fs::Path& crash_directory) {
  std::vector<OrphanSession> orphans;
  std::error_code ec;
  for (fs::Path& session : ListCompactSessions(crash_directory, ec)) {
    if (orphans.size() == kOrphanSessionsMax) break;
    if (std::optional<json> record = OrphanRecord(session)) {
      orphans.push_back({std::move(session), std::move(*record)});
    }
  }
  return orphans;
}

}  // namespace zul
