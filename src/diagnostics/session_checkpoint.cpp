#include "diagnostics/session_checkpoint.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <utility>

#include "collector/collector.h"
#include "collector/evidence_record.h"
#include "collector/process_life.h"
#include "collector/session_directory.h"
#include "core/file_layer.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "diagnostics/diagnostics_log.h"
#include "diagnostics/json_file.h"
#include "diagnostics/report_text.h"
#include "diagnostics/session_sanitizer.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::size_t kBreadcrumbsMax = 64;
constexpr std::size_t kBreadcrumbFieldsMax = 16;
constexpr std::size_t kBreadcrumbValueBytesMax = 256;

/// One step of the process, sanitised and bounded.
struct Breadcrumb {
  std::uint64_t sequence = 0;
  std::string time_local;
  std::string event;
  DiagnosticFields details;
};

/// A session as its next checkpoint describes it.
struct SessionRecord {
  std::string session_id;
  std::uint32_t pid = 0;
  std::string process_identity;
  std::string started_at_local;
  std::string termination_state = "active";
  fs::Path file;
  std::uint64_t start_ms = 0;  ///< of TickCountMs
  std::uint64_t checkpoint_sequence = 0;
  std::uint64_t breadcrumb_sequence = 0;
  std::deque<Breadcrumb> breadcrumbs;  ///< oldest first
  std::function<json()> describe_app;
};

/// The session of this process.
struct SessionCheckpoint {
  std::mutex mutex;                     ///< guards `record`; never held during file work
  std::optional<SessionRecord> record;  ///< of the active session
};

SessionCheckpoint& Session() {
  // Never destroyed: another thread may still add a step while the process ends.
  static SessionCheckpoint& session = *new SessionCheckpoint;
  return session;
}

SessionRecord NewSessionRecord(const fs::Path& crash_directory) {
  SessionRecord record;
  record.session_id = MakeDiagnosticId("session");
  record.pid = CurrentProcessId();
  if (const auto creation_time = QueryProcess(record.pid).creation_time) {
    record.process_identity = std::to_string(*creation_time);
  }
  record.started_at_local = LocalTimeText();
  record.start_ms = TickCountMs();
  record.file = SessionStateDirectory(crash_directory) /
                ("active_" + std::to_string(record.pid) + "_" + record.session_id + ".json");
  return record;
}

/// True when `record` becomes the active session; an active one stays.
bool Activate(SessionRecord record) {
  const std::scoped_lock lock(Session().mutex);
  if (Session().record) return false;
  Session().record = std::move(record);
  return true;
}

Breadcrumb MakeBreadcrumb(const std::string& event, const DiagnosticFields& fields) {
  Breadcrumb breadcrumb{.sequence = 0,
                        .time_local = LocalTimeText(),
                        .event = SanitizeIdentifier(event),
                        .details = {}};
  for (const auto& [key, value] : fields) {
    if (breadcrumb.details.size() == kBreadcrumbFieldsMax) break;
    breadcrumb.details.emplace_back(SanitizeIdentifier(key),
                                    ShortenText(ReportField(key, value), kBreadcrumbValueBytesMax));
  }
  return breadcrumb;
}

/// Adds a step to the active session, unless it repeats the newest one.
void Append(Breadcrumb breadcrumb) {
  const std::scoped_lock lock(Session().mutex);
  std::optional<SessionRecord>& record = Session().record;
  if (!record) return;
  std::deque<Breadcrumb>& latest = record->breadcrumbs;
  if (!latest.empty() && latest.back().event == breadcrumb.event &&
      latest.back().details == breadcrumb.details) {
    return;
  }
  breadcrumb.sequence = ++record->breadcrumb_sequence;
  latest.push_back(std::move(breadcrumb));
  if (latest.size() > kBreadcrumbsMax) latest.pop_front();
}

/// The active session for its next checkpoint.
std::optional<SessionRecord> TakeCheckpoint() {
  const std::scoped_lock lock(Session().mutex);
  if (Session().record) ++Session().record->checkpoint_sequence;
  return Session().record;
}

json BreadcrumbsToJson(const std::deque<Breadcrumb>& breadcrumbs) {
  json array = json::array();
  for (const Breadcrumb& breadcrumb : breadcrumbs) {
    json details = json::object();
    for (const auto& [key, value] : breadcrumb.details) details[key] = value;
    array.push_back({{"sequence", breadcrumb.sequence},
                     {"time_local", breadcrumb.time_local},
                     {"event", breadcrumb.event},
                     {"details", std::move(details)}});
  }
  return array;
}

json BuildSessionJson(const SessionRecord& record) {
  const std::uint64_t now_ms = TickCountMs();
  const std::uint64_t uptime_ms = now_ms - std::min(now_ms, record.start_ms);
  return {{"schema_name", "qorva.diagnostics.session"},
          {"schema_version", 2},
          {"session_id", record.session_id},
          {"pid", record.pid},
          {"process_identity", record.process_identity},
          {"started_at_local", record.started_at_local},
          {"updated_at_local", LocalTimeText()},
          {"updated_at_unix_ms", UnixTimeMs()},
          {"termination_state", record.termination_state},
          {"checkpoint_sequence", record.checkpoint_sequence},
          {"host_monotonic_ms", now_ms},
          {"process_uptime_ms", uptime_ms},
          // The updater has no watchdog of its window: the last heartbeat is the session's start.
          {"ui_heartbeat",
           {{"sequence", 0},
            {"age_ms", uptime_ms},
            {"watchdog_running", false},
            {"watchdog_reported_stall", false}}},
          {"app", record.describe_app()},
          // Only the long-running application has a runtime state.
          {"runtime_state", json::object()},
          {"breadcrumbs", BreadcrumbsToJson(record.breadcrumbs)}};
}

/// Writes the copy for the observer and for recovery.
void CommitCompactCheckpoint(const json& session) {
  const fs::Path directory = CompactSessionDirectory();
  if (directory.empty()) return;
  std::string reason;
  if (!CommitEvidenceRecord(directory / kCheckpointFile, BuildCompactCheckpoint(session),
                            &reason)) {
    LogDiagnosticsFailure("compact checkpoint", reason);
  }
}

}  // namespace

fs::Path SessionStateDirectory(const fs::Path& crash_directory) {
  return crash_directory / "session_state";
}

void StartSession(const fs::Path& crash_directory, std::function<json()> describe_app) {
  RunGuarded("session start", [&] {
    if (crash_directory.empty()) return;
    SessionRecord record = NewSessionRecord(crash_directory);
    record.describe_app = std::move(describe_app);
    if (!Activate(std::move(record))) return;
    AddBreadcrumb("application_started", {});
    if (!WriteSessionCheckpoint()) {
      LogDiagnosticsFailure("session checkpoint start", "write failed");
    }
  });
}

void AddBreadcrumb(std::string event, DiagnosticFields fields) {
  if (event.empty()) return;
  RunGuarded("breadcrumb record", [&] { Append(MakeBreadcrumb(event, fields)); });
}

bool WriteSessionCheckpoint() {
  bool written = false;
  RunGuarded("session checkpoint", [&] {
    const std::optional<SessionRecord> record = TakeCheckpoint();
    written = !record;
    if (!record) return;
    const json session = BuildSessionJson(*record);
    CommitCompactCheckpoint(session);
    written = WriteJsonFile(record->file, session);
  });
  return written;
}

void FinishDiagnosticsSession(const std::optional<std::string>& reason) {
  fs::Path file;
  {
    const std::scoped_lock lock(Session().mutex);
    if (!Session().record) return;
    Session().record->termination_state = SanitizeIdentifier(reason.value_or("clean_shutdown"));
    file = Session().record->file;
  }
  // The compact checkpoint keeps the reason after the session file is gone.
  WriteSessionCheckpoint();
  std::error_code ec;
  fs::Remove(file, ec);
  if (ec) LogDiagnosticsFailure("session end", SystemErrorText(ec));
  const std::scoped_lock lock(Session().mutex);
  Session().record.reset();
}

json SessionBreadcrumbs() {
  const std::scoped_lock lock(Session().mutex);
  return BreadcrumbsToJson(Session().record ? Session().record->breadcrumbs
                                            : std::deque<Breadcrumb>());
}

}  // namespace zul
