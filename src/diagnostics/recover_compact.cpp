// Sessions of the collector whose process and observer are both gone.

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
#include "diagnostics/compact_checkpoint.h"
#include "diagnostics/diagnostic_names.h"
#include "diagnostics/hostile_json.h"
#include "diagnostics/recovered_report.h"
#include "diagnostics/recovery_claim.h"
#include "diagnostics/report_manifest.h"
#include "diagnostics/session_recovery.h"

namespace zul {

namespace {

using nlohmann::json;

bool IsOfProcess(const json& record, const ProcessKey& process) {
  const std::optional<ProcessKey> key = ProcessKeyOf(record);
  return key && key->pid == process.pid && key->identity == process.identity;
}

/// What the process was doing, from its last checkpoint: the copy in its session, or else its
/// session file, in the copy's bounds.
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

json BuildCompactManifest(const json& evidence, const std::optional<json>& checkpoint,
                          const std::string& report_id) {
  ReportRequest request;
  request.kind = KindOfEnd(evidence);
  request.reason = "Independent process evidence: " + TextIn(evidence, "event") +
                   "; capture=" + TextIn(evidence, "capture_status", "unknown");
  request.client_report_id = report_id;
  if (!checkpoint) request.details = {{"previous_checkpoint", "unavailable"}};
  json manifest = BuildReportManifest(request);
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

void RecoverSession(const OrphanSession& orphan, const fs::Path& crash_directory) {
  const std::optional<ProcessKey> process = ProcessKeyOf(orphan.record);
  RecoveryClaim claim(orphan.directory, ClaimKind::kFolder);
  if (!claim.held() || !process) return;
  const json evidence = SanitizeEvidenceRecord(orphan.record);
  if (TextIn(evidence, "event") != "clean_exit") {
    const std::string report_id = "compact_" + claim.OriginalName();
    const json manifest = BuildCompactManifest(
        evidence, FindCheckpoint(claim.path(), crash_directory, *process), report_id);
    if (!claim.StillHeld() || !QueueCompactReport(manifest, crash_directory, report_id)) return;
  }
  DeleteCompactSession(claim.path());
  claim.Consumed();
}

}  // namespace

void RecoverCompactEvidence(const fs::Path& crash_directory) {
  for (const OrphanSession& orphan : FinalizeOrphanSessions(crash_directory)) {
    RunGuarded("compact recovery", [&] { RecoverSession(orphan, crash_directory); });
  }
  EnforceQueueRetention(crash_directory, UnixTimeMs());
}

}  // namespace zul
