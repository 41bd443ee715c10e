// The privacy promises of a manifest, kept also for one that an older version wrote.

#include <string_view>
#include <vector>

#include "diagnostics/redaction.h"
#include "diagnostics/report_manifest.h"

namespace zul {

namespace {

using nlohmann::json;

/// Older versions described paths by hashes, which tell one machine from another.
constexpr std::string_view kHashKeys[] = {"path_hash", "filename_hash", "install_dir_hash"};
constexpr std::string_view kHashMarker = "[redacted-path:";

void DropHashesFromMarkers(std::string* text) {
  std::string out;
  std::size_t copied = 0;
  for (std::size_t marker = text->find(kHashMarker); marker != std::string::npos;
       marker = text->find(kHashMarker, copied)) {
    const std::size_t end = text->find(']', marker);
    if (end == std::string::npos) break;
    out.append(*text, copied, marker - copied).append(kRedactedPath);
    copied = end + 1;
  }
  if (copied != 0) *text = out.append(*text, copied);
}

/// Without recursion, so that the depth does not matter.
void DropStableIdentifiers(json* manifest) {
  std::vector<json*> pending = {manifest};
  while (!pending.empty()) {
    json& value = *pending.back();
    pending.pop_back();
    if (value.is_string()) DropHashesFromMarkers(value.get_ptr<std::string*>());
    if (value.is_object()) {
      for (const std::string_view key : kHashKeys) value.erase(key);
    }
    if (!value.is_structured()) continue;
    for (json& member : value) pending.push_back(&member);
  }
}

/// The member `key` as an object, whatever stood there.
json& ObjectIn(json& object, const char* key) {
  json& member = object[key];
  if (!member.is_object()) member = json::object();
  return member;
}

}  // namespace

void NormalizeManifestPrivacy(json* manifest) {
  if (!manifest->is_object()) *manifest = json::object();
  DropStableIdentifiers(manifest);
  (*manifest)["privacy_schema_version"] = 2;
  json& privacy = ObjectIn(*manifest, "privacy");
  for (const char* flag :
       {"source_artwork_uploaded", "dump_uploaded", "raw_recent_log_tail_uploaded",
        "user_approved_redacted_log_tail_uploaded"}) {
    if (!privacy.contains(flag)) privacy[flag] = false;
  }
  if (!privacy.contains("report_text_policy")) {
    privacy["report_text_policy"] = "log_tail_omitted_by_default";
  }
  privacy["paths"] = "redacted";
  privacy["path_identifier_policy"] = "omitted";
  privacy["legacy_stable_path_hashes"] = "removed";
  privacy["local_machine_ids"] = "omitted";
  privacy["redaction_policy"] = kRedactionPolicy;
}

}  // namespace zul
