// The recovery of compact sessions.

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "collector/evidence_record.h"
#include "collector/evidence_sanitizer.h"
#include "collector/orphan_sessions.h"
#include "collector/retention.h"
#include "collector/session_directory.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "diagnostics/diagnostics_log.h"
#include "diagnostics/json_file.h"
#include "diagnostics/recovered_session.h"
#include "diagnostics/recovery.h"
#include "diagnostics/recovery_claim.h"
#include "diagnostics/report_files.h"
#include "diagnostics/session_sanitizer.h"

namespace zul {

namespace {

using nlohmann::json;

bool IsOfProcess(const json& record, const ProcessKey& process) {
  const std::optional<ProcessKey> key = ProcessKeyOf(record);
  return key && key->pid == process.pid && key->identity == process.identity;
}

/// The last checkpoint of a process, bounded: from its compact session, or else from its session
/// file.
std::optional<json> FindCheckpoint(const fs::Path& session, const fs::Path& crash_directory,
                                   const ProcessKey& process) {
  json checkpoint;
  if (ReadEvidenceRecord(session / kCheckpointFile, &checkpoint, nullptr) &&
      IsOfProcess(checkpoint, process)) {
    return BuildCompactCheckpoint(checkpoint);
  }
  for (const fs::Path& file : ListSessionFiles(crash_directory)) {
    if (ReadJsonObject(file, kSessionFileBytesMax, &checkpoint) == JsonFileState::kObject &&
        IsOfProcess(checkpoint, process)) {
      return BuildCompactCheckpoint(checkpoint);
    }
  }
  return std::nullopt;
}

std::string KindOfEnd(const json& evidence) {
  if (FlagIn(evidence, "exception_observed")) return "crash";
  return TextIn(evidence, "event") == "ui_hang" ? "hang" : "unexpected_exit";
}

json BuildCompactManifest(const RecoverySurroundings& surroundings, const json& evidence,
                          const std::optional<json>& checkpoint, const std::string& report_id) {
  ReportRequest request;
  request.kind = KindOfEnd(evidence);
  request.reason = "Independent process evidence: " + TextIn(evidence, "event") +
                   "; capture=" + TextIn(evidence, "capture_status", "unknown");
  request.client_report_id = report_id;
  if (!checkpoint) request.details = {{"previous_checkpoint", "unavailable"}};
  json manifest = BuildReportManifest(request, surroundings.facts(request));
  manifest["breadcrumbs"] = json::array();
  if (checkpoint) {
    AddSessionForensics(*checkpoint, ClassifySessionEndNow(*checkpoint), &manifest);
  }
  manifest[std::string(kCompactEvidenceKey)] = evidence;
  manifest["privacy"]["compact_process_evidence"] = "module_offsets_and_sanitized_state_only";
  FinishManifest(&manifest);
  return manifest;
}

bool QueueCompactReport(const json& manifest, const fs::Path& crash_directory,
                        const std::string& report_id) {
  const fs::Path queue = PendingReportsDirectory(crash_directory);
  std::error_code ec;
  std::string reason;
  if (!fs::CreateDirectories(queue, ec)) {
    reason = SystemErrorText(ec);
  } else if (CommitEvidenceRecord(queue / (report_id + ".json"), manifest, &reason)) {
    return true;
  }
  LogDiagnosticsFailure("compact recovery queue", reason);
  return false;
}

void RecoverCompactSession(const OrphanSession& orphan, const RecoverySurroundings& surroundings) {
  const std::optional<ProcessKey> process = ProcessKeyOf(orphan.record);
  RecoveryClaim claim(orphan.directory, ClaimKind::kFolder);
  if (!claim.held() || !process) return;
  const json evidence = SanitizeEvidenceRecord(orphan.record);
  if (TextIn(evidence, "event") != "clean_exit") {
    const std::string report_id = "compact_" + claim.OriginalName();
    const json manifest = BuildCompactManifest(
        surroundings, evidence,
        FindCheckpoint(claim.path(), surroundings.crash_directory, *process), report_id);
    if (!claim.StillHeld() ||
        !QueueCompactReport(manifest, surroundings.crash_directory, report_id)) {
      return;
    }
  }
  DeleteCompactSession(claim.path());
  claim.Consumed();
}

}  // namespace

void RecoverCompactEvidence(const RecoverySurroundings& surroundings) {
  for (const OrphanSession& orphan : FinalizeOrphanSessions(surroundings.crash_directory)) {
    RunGuarded("compact recovery", [&] { RecoverCompactSession(orphan, surroundings); });
  }
  EnforceQueueRetention(surroundings.crash_directory, UnixTimeMs());
}

}  // namespace zul
