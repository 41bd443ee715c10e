#include "diagnostics/session_state.h"

#include <utility>

#include "diagnostics/diagnostic_names.h"
#include "diagnostics/report_text.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::uint64_t kDirtyPaceMs = 2000;
constexpr std::uint64_t kHeartbeatPaceMs = 10000;

/// 0 when the clock went backwards.
std::uint64_t Elapsed(std::uint64_t from_ms, std::uint64_t to_ms) {
  return to_ms > from_ms ? to_ms - from_ms : 0;
}

}  // namespace

bool IsCheckpointDue(const CheckpointPace& pace, std::uint64_t now_ms,
                     std::uint64_t heartbeat_sequence) {
  const std::uint64_t elapsed_ms = Elapsed(pace.last_write_ms, now_ms);
  return (pace.dirty && elapsed_ms >= kDirtyPaceMs) ||
         (heartbeat_sequence != pace.heartbeat_at_last_write && elapsed_ms >= kHeartbeatPaceMs);
}

bool SessionCheckpoint::Start(SessionRecord record, std::uint64_t now_ms) {
  const std::scoped_lock lock(mutex_);
  if (active_) return false;
  record_ = std::move(record);
  record_.start_ms = now_ms;
  record_.heartbeat.last_ms = now_ms;
  pace_ = {.dirty = true};
  active_ = true;
  return true;
}

void SessionCheckpoint::Add(Breadcrumb breadcrumb) {
  const std::scoped_lock lock(mutex_);
  if (!active_) return;
  std::deque<Breadcrumb>& ring = record_.breadcrumbs;
  if (!ring.empty() && ring.back().event == breadcrumb.event &&
      ring.back().details == breadcrumb.details) {
    return;
  }
  breadcrumb.sequence = ++record_.breadcrumb_sequence;
  ring.push_back(std::move(breadcrumb));
  if (ring.size() > kBreadcrumbsMax) ring.pop_front();
  pace_.dirty = true;
}

std::optional<SessionRecord> SessionCheckpoint::TakeCheckpoint(bool force, std::uint64_t now_ms) {
  const std::scoped_lock lock(mutex_);
  if (!active_ || record_.file.empty()) return std::nullopt;
  const std::uint64_t heartbeat = record_.heartbeat.sequence;
  if (!force && !IsCheckpointDue(pace_, now_ms, heartbeat)) return std::nullopt;
  pace_ = {.dirty = false, .last_write_ms = now_ms, .heartbeat_at_last_write = heartbeat};
  ++record_.checkpoint_sequence;
  return record_;
}

void SessionCheckpoint::CheckpointFailed(const fs::Path& file) {
  const std::scoped_lock lock(mutex_);
  if (active_ && record_.file == file) pace_.dirty = true;
}

std::optional<fs::Path> SessionCheckpoint::Finish(const std::string& termination_state) {
  const std::scoped_lock lock(mutex_);
  if (!active_) return std::nullopt;
  record_.termination_state = termination_state;
  pace_.dirty = true;
  return record_.file;
}

void SessionCheckpoint::End() {
  const std::scoped_lock lock(mutex_);
  active_ = false;
  pace_ = {};
  record_ = {};
}

std::deque<Breadcrumb> SessionCheckpoint::Breadcrumbs() const {
  const std::scoped_lock lock(mutex_);
  return record_.breadcrumbs;
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

json BuildSessionJson(const SessionRecord& record, const CheckpointMoment& now, json app) {
  const UiHeartbeat& heartbeat = record.heartbeat;
  return {{"schema_name", "qorva.diagnostics.session"},
          {"schema_version", 2},
          {"session_id", record.session_id},
          {"pid", now.pid},
          {"process_identity", record.process_identity},
          {"started_at_local", record.started_at_local},
          {"updated_at_local", now.local_text},
          {"updated_at_unix_ms", now.unix_ms},
          {"termination_state", record.termination_state},
          {"checkpoint_sequence", record.checkpoint_sequence},
          {"host_monotonic_ms", now.steady_ms},
          {"process_uptime_ms", Elapsed(record.start_ms, now.steady_ms)},
          {"ui_heartbeat",
           {{"sequence", heartbeat.sequence},
            {"age_ms", Elapsed(heartbeat.last_ms, now.steady_ms)},
            {"watchdog_running", heartbeat.watchdog_running},
            {"watchdog_reported_stall", heartbeat.watchdog_reported_stall}}},
          {"app", std::move(app)},
          // Fed by the long-running application only.
          {"runtime_state", json::object()},
          {"breadcrumbs", BreadcrumbsToJson(record.breadcrumbs)}};
}

}  // namespace zul
