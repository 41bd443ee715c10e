#include "diagnostics/session_sanitizer.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include "collector/evidence_record.h"
#include "diagnostics/field_text.h"
#include "diagnostics/json_file.h"
#include "diagnostics/report_text.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::size_t kRuntimeStateMax = 80;
constexpr std::size_t kRuntimeValueBytesMax = 256;
constexpr std::size_t kTextBytesMax = 128;
constexpr std::uint64_t kOmittedBreadcrumbsMax = 1000000;

void Note(bool* cut, bool was_cut) {
  if (cut != nullptr && was_cut) *cut = true;
}

std::string Bounded(const std::string& text, std::size_t max_bytes, bool* cut) {
  Note(cut, text.size() > max_bytes);
  return std::string(CutText(text, max_bytes));
}

std::string BoundedText(const json& object, const char* key, bool* cut) {
  return Bounded(ReportField(key, TextIn(object, key)), kTextBytesMax, cut);
}

json SanitizeDetails(const json& details, const BreadcrumbLimits& limits, bool* cut) {
  json kept = json::object();
  std::size_t count = 0;
  for (const auto& [key, value] : TextsIn(details)) {
    if (count++ == limits.fields) break;
    kept[Bounded(SanitizeIdentifier(key), limits.key_bytes, cut)] =
        Bounded(ReportField(key, value), limits.value_bytes, cut);
  }
  return kept;
}

}  // namespace

json SanitizeBreadcrumbs(const json& breadcrumbs, const BreadcrumbLimits& limits, bool* cut) {
  json kept = json::array();
  if (!breadcrumbs.is_array()) return kept;
  const std::size_t first = breadcrumbs.size() - std::min(breadcrumbs.size(), limits.count);
  for (std::size_t i = first; i < breadcrumbs.size(); ++i) {
    const json& breadcrumb = breadcrumbs[i];
    kept.push_back({{"sequence", NumberIn(breadcrumb, "sequence")},
                    {"event", BoundedText(breadcrumb, "event", cut)},
                    {"time_local", BoundedText(breadcrumb, "time_local", cut)},
                    {"details", SanitizeDetails(MemberOf(breadcrumb, "details"), limits, cut)}});
  }
  return kept;
}

json SanitizeRuntimeState(const json& runtime_state, bool* cut) {
  json kept = json::object();
  std::size_t count = 0;
  for (const auto& [key, value] : TextsIn(runtime_state)) {
    if (count++ == kRuntimeStateMax) break;
    const std::string text = ReportField(key, value);
    Note(cut, text.size() > kRuntimeValueBytesMax);
    kept[SanitizeIdentifier(key)] = ShortenText(text, kRuntimeValueBytesMax);
  }
  return kept;
}

json SanitizeAppObject(const json& app) {
  json kept = json::object();
  for (const char* key : {"app_name", "version", "build_id", "channel", "platform", "arch",
                          "compact_collector_error"}) {
    if (MemberOf(app, key).is_string()) kept[key] = BoundedText(app, key, nullptr);
  }
  kept["compact_collector_ready_at_start"] = FlagIn(app, "compact_collector_ready_at_start");
  for (const char* key : {"exe", "log"}) {
    const json& artifact = MemberOf(app, key);
    kept[key] = {{"present", FlagIn(artifact, "present")},
                 {"extension", BoundedText(artifact, "extension", nullptr)},
                 {"size_bytes", NumberIn(artifact, "size_bytes")}};
  }
  return kept;
}

json BuildCompactCheckpoint(const json& session) {
  bool cut = false;
  json record = {{"schema", kEvidenceSchema}};
  for (const char* key : {"pid", "checkpoint_sequence", "updated_at_unix_ms", "host_monotonic_ms",
                          "process_uptime_ms"}) {
    record[key] = NumberIn(session, key);
  }
  for (const char* key : {"process_identity", "termination_state"}) {
    record[key] = Bounded(SanitizeIdentifier(TextIn(session, key)), kTextBytesMax, &cut);
  }
  const json& heartbeat = MemberOf(session, "ui_heartbeat");
  record["ui_heartbeat"] = {
      {"sequence", NumberIn(heartbeat, "sequence")},
      {"age_ms", NumberIn(heartbeat, "age_ms")},
      {"watchdog_reported_stall", FlagIn(heartbeat, "watchdog_reported_stall")}};
  record["runtime_state"] = SanitizeRuntimeState(MemberOf(session, "runtime_state"), &cut);
  const json& breadcrumbs = MemberOf(session, "breadcrumbs");
  record["breadcrumbs"] = SanitizeBreadcrumbs(breadcrumbs, kCompactBreadcrumbs, &cut);
  const std::size_t count = breadcrumbs.is_array() ? breadcrumbs.size() : 0;
  record["omitted_older_breadcrumbs"] =
      count - record["breadcrumbs"].size() +
      std::min(NumberIn(session, "omitted_older_breadcrumbs"), kOmittedBreadcrumbsMax);
  if (cut) record["bounded_fields"] = true;
  return record;
}

}  // namespace zul
