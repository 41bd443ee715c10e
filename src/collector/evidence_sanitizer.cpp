#include "collector/evidence_sanitizer.h"

#include <algorithm>
#include <array>

#include "collector/evidence_record.h"
#include "collector/session_directory.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::size_t kWordBytesMax = 128;

bool IsWord(const json& value) {
  return value.is_string() && IsEvidenceWord(value.get_ref<const std::string&>());
}

bool IsCount(const json& value) {
  return value.is_number_unsigned() ||
         (value.is_number_integer() && value.get<std::int64_t>() >= 0);
}

bool IsFlag(const json& value) {
  return value.is_boolean();
}

struct AllowedKey {
  const char* name;
  bool (*allows)(const json& value);
};

constexpr std::array kRecordKeys = std::to_array<AllowedKey>({
    {"event", IsWord},
    {"capture_status", IsWord},
    {"capture_error", IsWord},
    {"platform", IsWord},
    {"version", IsWord},
    {"build_id", IsWord},
    {"channel", IsWord},
    {"arch", IsWord},
    {"exit_status_kind", IsWord},
    {"exception_code", IsCount},
    {"thread_id", IsCount},
    {"observed_at_unix_ms", IsCount},
    {"exit_code", IsCount},
    {"exit_signal", IsCount},
    {"process_uptime_ms", IsCount},
    {"working_set_bytes", IsCount},
    {"private_bytes", IsCount},
    {"handle_count", IsCount},
    {"thread_count", IsCount},
    {"ui_heartbeat_age_ms", IsCount},
    {"capture_duration_ms", IsCount},
    {"finalized", IsFlag},
    {"clean_shutdown_intent", IsFlag},
    {"exit_code_known", IsFlag},
    {"exception_observed", IsFlag},
    {"frames_limited", IsFlag},
    {"live_stack_best_effort", IsFlag},
});

constexpr std::array kFrameKeys = std::to_array<AllowedKey>({
    {"module", IsWord},
    {"pdb_guid", IsWord},
    {"rva", IsCount},
    {"image_size", IsCount},
    {"image_timestamp", IsCount},
    {"pdb_age", IsCount},
    {"module_resolved", IsFlag},
});

template <std::size_t kCount>
json CopyAllowed(const json& from, const std::array<AllowedKey, kCount>& keys) {
  json copy = json::object();
  for (const AllowedKey& key : keys) {
    const auto found = from.find(key.name);
    if (found != from.end() && key.allows(*found)) copy[key.name] = *found;
  }
  return copy;
}

/// The first frames of a stack. A value that is not an object is left out but counts as a frame.
json CopyFrames(const json& frames) {
  json copy = json::array();
  for (std::size_t i = 0; i < std::min(frames.size(), kEvidenceFramesMax); ++i) {
    if (frames[i].is_object()) copy.push_back(CopyAllowed(frames[i], kFrameKeys));
  }
  return copy;
}

}  // namespace

bool IsEvidenceWord(std::string_view text) {
  return !text.empty() && text.size() <= kWordBytesMax && HasOnlyWordBytes(text);
}

json SanitizeEvidenceRecord(const json& record) {
  json copy = CopyAllowed(record, kRecordKeys);
  copy["schema"] = kEvidenceSchema;
  copy["external_terminator_identified"] = false;
  copy["memory_contents_uploaded"] = false;
  if (const auto frames = record.find("frames"); frames != record.end() && frames->is_array()) {
    copy["frames"] = CopyFrames(*frames);
    if (frames->size() > kEvidenceFramesMax) copy["frames_limited"] = true;
  }
  return copy;
}

}  // namespace zul
