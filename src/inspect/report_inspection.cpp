#include "inspect/report_inspection.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "collector/evidence_record.h"
#include "collector/evidence_sanitizer.h"
#include "core/failure.h"
#include "diagnostics/json_file.h"
#include "diagnostics/redaction.h"
#include "diagnostics/report_manifest.h"
#include "inspect/text_file.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::uint64_t kReportBytesMax = 1048576;

struct KindMeaning {
  std::string_view kind;
  std::string_view meaning;
};

constexpr std::array kKinds = std::to_array<KindMeaning>({
    {"updater_error", "An update run failed."},
    {"crash", "A process crashed."},
    {"crash_capture_failed", "A process crashed, and its dump was started and not finished."},
    {"hang", "A window stopped answering."},
    {"unexpected_exit", "A process ended without an order to end."},
    {"host_restart", "The machine was restarted while a process ran."},
});

std::string MeaningOfKind(std::string_view kind) {
  for (const KindMeaning& known : kKinds) {
    if (known.kind == kind) return std::string(known.meaning);
  }
  return "The kind of this report is not known to this version.";
}

/// The places where two values differ, as JSON pointers.
void AddDifferences(const json& kept, const json& found, const std::string& prefix,
                    std::string_view promise, std::vector<std::string>* broken) {
  for (const json& difference : json::diff(kept, found)) {
    broken->push_back(prefix + difference["path"].get<std::string>() + ": " + std::string(promise));
  }
}

/// The flags that must never be true, in the two blocks that have them.
void CheckFlags(const json& report, std::vector<std::string>* broken) {
  for (const char* block : {"privacy", "upload_contract"}) {
    for (const char* flag :
         {"source_artwork_uploaded", "dump_uploaded", "raw_recent_log_tail_uploaded"}) {
      if (FlagIn(MemberOf(report, block), flag)) {
        broken->push_back("/" + std::string(block) + "/" + flag + ": is true");
      }
    }
  }
}

/// Gives each text of `value` to the redaction. The attempts name the report origins and are left
/// out. The value is nested at most kEvidenceDepthMax deep.
void CheckTexts(const json& value, const std::string& place, std::vector<std::string>* broken) {
  if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    if (RedactSupportText(text) != text) {
      broken->push_back(place + ": holds text that the redaction removes");
    }
  }
  if (!value.is_structured()) return;
  for (const auto& [key, member] : value.items()) {
    if (key != "upload_attempts" && !key.starts_with("last_upload_")) {
      CheckTexts(member, std::string(place).append("/").append(key), broken);
    }
  }
}

std::size_t CountMarkers(std::string_view text) {
  std::size_t count = 0;
  for (std::size_t at = text.find("[redacted"); at != std::string_view::npos;
       at = text.find("[redacted", at + 1)) {
    ++count;
  }
  return count;
}

std::string BuildOf(const json& app) {
  return TextIn(app, "version", "?") + ", build " + TextIn(app, "build_id", "?") + ", " +
         TextIn(app, "channel", "?") + ", " + TextIn(app, "platform", "?");
}

std::string UploadText(const json& report) {
  const std::size_t attempts = MemberOf(report, "upload_attempts").size();
  if (attempts == 0) return "not tried yet";
  return TextIn(report, "last_upload_status", "in progress") + " after " +
         std::to_string(attempts) + (attempts == 1 ? " attempt; " : " attempts; ") +
         TextIn(report, "last_upload_origin_role", "?") + ": HTTP status " +
         std::to_string(NumberIn(report, "last_upload_http_status")) + " " +
         TextIn(report, "last_upload_transport_error");
}

void DescribeReport(const json& report, ReportInspection* inspection) {
  inspection->kind = TextIn(report, "kind", "unknown");
  inspection->meaning = MeaningOfKind(inspection->kind);
  inspection->reason = TextIn(report, "reason");
  inspection->created_at = TextIn(report, "created_at_local", "?");
  inspection->build = BuildOf(MemberOf(report, "app"));
  inspection->stage = TextIn(MemberOf(report, "details"), "stage");
  inspection->forensics =
      TextIn(MemberOf(report, std::string(kPreviousForensicsKey).c_str()), "classification");
  inspection->upload = UploadText(report);
  TraceReading trace = ReadTrace(TextIn(report, "report_text"));
  if (!trace.runs.empty()) inspection->run = std::move(trace.runs.back());
  const json& evidence = MemberOf(report, std::string(kCompactEvidenceKey).c_str());
  if (evidence.is_object()) inspection->evidence = DescribeEvidence(evidence);
}

}  // namespace

std::vector<std::string> BrokenPromises(const json& report) {
  std::vector<std::string> broken;
  json kept = report;
  NormalizeManifestPrivacy(&kept);
  AddDifferences(kept, report, "", "differs from what every report must say", &broken);
  CheckFlags(report, &broken);
  const auto evidence = report.find(kCompactEvidenceKey);
  if (evidence != report.end()) {
    AddDifferences(SanitizeEvidenceRecord(*evidence), *evidence,
                   "/" + std::string(kCompactEvidenceKey), "is not on the allow-list of evidence",
                   &broken);
  }
  CheckTexts(report, "", &broken);
  return broken;
}

bool InspectReport(const std::string& path, ReportInspection* inspection, std::string* error) {
  std::string text;
  if (!ReadTextFile(path, kReportBytesMax + 1, &text, error)) return false;
  const std::optional<json> report = ParseBoundedObject(text);
  if (text.size() > kReportBytesMax || !report ||
      TextIn(*report, "schema_name") != "qorva.diagnostics.report") {
    return Fail(error, "'" + path +
                           "' is not a report: a report is one JSON object of at most 1 MiB "
                           "with the schema qorva.diagnostics.report");
  }
  *inspection = ReportInspection();
  inspection->path = path;
  DescribeReport(*report, inspection);
  inspection->withheld = CountMarkers(text);
  inspection->broken_promises = BrokenPromises(*report);
  return true;
}

}  // namespace zul
