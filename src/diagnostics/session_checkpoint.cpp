#include "diagnostics/session_checkpoint.h"

#include <nlohmann/json.hpp>

#include "collector/collector.h"
#include "collector/evidence_record.h"
#include "collector/session_directory.h"
#include "core/build_identity.h"
#include "core/logger.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/compact_checkpoint.h"
#include "diagnostics/diagnostic_names.h"
#include "diagnostics/diagnostics.h"
#include "diagnostics/session_state.h"

namespace zul {

namespace {

using nlohmann::json;

SessionCheckpoint& Session() {
  // Never destroyed: another thread may still add a breadcrumb while the process ends.
  static SessionCheckpoint& session = *new SessionCheckpoint;
  return session;
}

SessionRecord NewSessionRecord(const fs::Path& crash_directory) {
  const std::uint32_t pid = CurrentProcessId();
  SessionRecord record;
  record.session_id = MakeDiagnosticId("session");
  if (const auto creation_time = QueryProcess(pid).creation_time) {
    record.process_identity = std::to_string(*creation_time);
  }
  record.started_at_local = LocalTimeText();
  record.file = SessionStateDirectory(crash_directory) /
                ("active_" + std::to_string(pid) + "_" + record.session_id + ".json");
  return record;
}

/// The copy for the observer and for recovery. Its failure does not keep the session file from
/// being written.
void CommitCompactCheckpoint(const json& session) {
  const fs::Path directory = CompactSessionDirectory();
  if (directory.empty()) return;
  std::string reason;
  if (!CommitEvidenceRecord(directory / kCheckpointFile, BuildCompactCheckpoint(session),
                            &reason)) {
    LogDiagnosticsFailure("compact checkpoint", reason);
  }
}

bool WriteCheckpoint(const SessionRecord& record, std::uint64_t now_ms) {
  bool written = false;
  RunGuarded("session checkpoint", [&] {
    const json session = BuildSessionJson(record,
                                          {.pid = CurrentProcessId(),
                                           .steady_ms = now_ms,
                                           .unix_ms = UnixTimeMs(),
                                           .local_text = LocalTimeText()},
                                          AppObject());
    CommitCompactCheckpoint(session);
    written = WriteDiagnosticsJson(record.file, session);
  });
  return written;
}

}  // namespace

fs::Path SessionStateDirectory(const fs::Path& crash_directory) {
  return crash_directory / "session_state";
}

void StartSession() {
  RunGuarded("session start", [] {
    const fs::Path crash_directory = PathOrEmpty(GetDiagnosticsState().crash_directory);
    if (crash_directory.empty()) return;
    if (!Session().Start(NewSessionRecord(crash_directory), TickCountMs())) return;
    AddBreadcrumb("application_started", {});
    if (!WriteSessionCheckpoint(true)) {
      LogDiagnosticsFailure("session checkpoint start", "write failed");
    }
  });
}

void AddBreadcrumb(std::string event, DiagnosticFields fields) {
  if (event.empty()) return;
  RunGuarded("breadcrumb record", [&] { Session().Add(MakeBreadcrumb(event, fields)); });
}

bool WriteSessionCheckpoint(bool force) {
  const std::uint64_t now_ms = TickCountMs();
  const std::optional<SessionRecord> record = Session().TakeCheckpoint(force, now_ms);
  if (!record || WriteCheckpoint(*record, now_ms)) return true;
  Session().CheckpointFailed(record->file);
  return false;
}

void FinishDiagnosticsSession(const std::optional<std::string>& reason) {
  const std::optional<fs::Path> file =
      Session().Finish(SanitizeIdentifier(reason.value_or("clean_shutdown")));
  if (!file) return;
  // So that the last compact checkpoint tells how the process meant to end.
  WriteSessionCheckpoint(true);
  std::error_code ec;
  fs::Remove(*file, ec);
  if (ec) LogDiagnosticsFailure("session end", SystemErrorText(ec));
  Session().End();
}

json SessionBreadcrumbs() {
  return BreadcrumbsToJson(Session().Breadcrumbs());
}

json AppObject() {
  const DiagnosticsState state = GetDiagnosticsState();
  const BuildIdentity build = GetBuildIdentity();
  return {{"app_name", "QORVA"},
          {"version", build.version},
          {"build_id", build.build_id},
          {"channel", build.channel},
          {"platform", build.platform},
          {"arch", build.arch},
          {"compact_collector_ready_at_start", state.compact_collector_ready},
          {"compact_collector_error", state.compact_collector_error},
          {"exe", ArtifactMetadata(PathOrEmpty(state.executable_path))},
          {"log", ArtifactMetadata(PathOrEmpty(GetLogger().CurrentPath()))}};
}

}  // namespace zul
