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

/// The record in this file; a null value when there is none or it is of another process.
json RecordOf(const ProcessKey& process, const fs::Path& file) {
  json record;
  if (!ReadEvidenceRecord(file, &record, nullptr) || !IsOfProcess(record, process)) {
    return {};
  }
  return record;
}

/// The session file of a process; a null value when there is none.
json FindSession(const fs::Path& crash_directory, const ProcessKey& process) {
  json session;
  for (const fs::Path& file : ListSessionFiles(crash_directory)) {
    if (ReadJsonObject(file, kSessionFileBytesMax, &session) == JsonFileState::kObject &&
        IsOfProcess(session, process)) {
      return session;
    }
  }
  return {};
}

/// What an earlier process left, besides the incident of its end. A null value means nothing.
struct EarlierProcess {
  json checkpoint;  ///< the last one, bounded
  json hang;        ///< the hang that was captured, sanitised
  json app;         ///< the `app` object
};

/// The build of a process as its evidence names it.
json AppOf(const json& evidence) {
  if (!MemberOf(evidence, "build_id").is_string()) return {};
  json app = {{"app_name", "QORVA"}};
  for (const char* key : {"version", "build_id", "channel", "platform", "arch"}) {
    if (MemberOf(evidence, key).is_string()) app[key] = evidence[key];
  }
  return app;
}

EarlierProcess FindEarlierProcess(const fs::Path& session_folder, const fs::Path& crash_directory,
                                  const ProcessKey& process, const json& evidence) {
  const json session = FindSession(crash_directory, process);
  const json& app = MemberOf(session, "app");
  json last = RecordOf(process, session_folder / kCheckpointFile);
  if (last.is_null()) last = session;
  const json hang = RecordOf(process, session_folder / kHangFile);
  return {.checkpoint = last.is_null() ? json() : BuildCompactCheckpoint(last),
          .hang = hang.is_null() ? json() : SanitizeEvidenceRecord(hang),
          .app = MemberOf(app, "build_id").is_string() ? SanitizeAppObject(app) : AppOf(evidence)};
}

std::string KindOfEnd(const json& evidence) {
  if (FlagIn(evidence, "exception_observed")) return "crash";
  return TextIn(evidence, "event") == "ui_hang" ? "hang" : "unexpected_exit";
}

json BuildCompactManifest(const RecoverySurroundings& surroundings, const json& evidence,
                          const EarlierProcess& earlier, const std::string& report_id) {
  ReportRequest request;
  request.kind = KindOfEnd(evidence);
  request.reason = "Independent process evidence: " + TextIn(evidence, "event") +
                   "; capture=" + TextIn(evidence, "capture_status", "unknown");
  request.client_report_id = report_id;
  if (earlier.checkpoint.is_null()) request.details = {{"previous_checkpoint", "unavailable"}};
  json manifest = BuildReportManifest(request, surroundings.facts(request));
  if (!earlier.app.is_null()) manifest["app"] = earlier.app;
  manifest["breadcrumbs"] = json::array();
  if (!earlier.checkpoint.is_null()) {
    AddSessionForensics(earlier.checkpoint, ClassifySessionEndNow(earlier.checkpoint), &manifest);
  }
  manifest[std::string(kCompactEvidenceKey)] = evidence;
  if (!earlier.hang.is_null()) manifest[std::string(kCompactHangKey)] = earlier.hang;
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
    const EarlierProcess earlier =
        FindEarlierProcess(claim.path(), surroundings.crash_directory, *process, evidence);
    const json manifest = BuildCompactManifest(surroundings, evidence, earlier, report_id);
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
