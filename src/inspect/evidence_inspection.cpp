#include "inspect/evidence_inspection.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "collector/emergency_record.h"
#include "collector/evidence_record.h"
#include "collector/session_directory.h"
#include "core/failure.h"
#include "core/file_layer.h"
#include "core/text.h"
#include "diagnostics/json_file.h"

namespace zul {

namespace {

using nlohmann::json;

struct CodeName {
  std::uint32_t code;
  std::string_view name;
};

/// NTSTATUS values ("NTSTATUS Values" in the platform's documentation) and those of compilers and
/// of the updater itself.
constexpr std::array kCodes = std::to_array<CodeName>({
    {0x80000003, "breakpoint"},
    {0xC0000005, "access violation"},
    {0xC0000006, "in-page error: a disk or network drive failed under the program"},
    {0xC000001D, "illegal instruction"},
    {0xC0000094, "integer division by zero"},
    {0xC00000FD, "stack overflow"},
    {0xC000013A, "ended by Ctrl+C or by the end of the user's session"},
    {0xC0000135, "a library was not found"},
    {0xC0000142, "a library did not initialise"},
    {0xC0000374, "heap corruption"},
    {0xC0000409, "fast fail: abort, or a damaged stack"},
    {0xE06D7363, "C++ exception"},
    {0x20474343, "C++ exception"},
    {0x5A554C55, "ended by the updater, because the user pressed Force close"},
});

std::string BuildText(const json& record) {
  return TextIn(record, "version", "?") + ", build " + TextIn(record, "build_id", "?") + ", " +
         TextIn(record, "channel", "?") + ", " + TextIn(record, "platform", "?");
}

StackFrame FrameOf(const json& frame) {
  return {.module = TextIn(frame, "module"),
          .rva = NumberIn(frame, "rva"),
          .image_size = NumberIn(frame, "image_size"),
          .image_timestamp = NumberIn(frame, "image_timestamp"),
          .pdb_guid = TextIn(frame, "pdb_guid"),
          .pdb_age = NumberIn(frame, "pdb_age"),
          .symbol = {}};
}

std::string ExitText(const json& record) {
  return FlagIn(record, "exit_code_known") ? CodeText(NumberIn(record, "exit_code"))
                                           : std::string("unknown");
}

std::string ThreadText(const json& record) {
  return " in thread " + std::to_string(NumberIn(record, "thread_id"));
}

struct EventMeaning {
  std::string_view event;
  bool ended_badly;
  std::string (*summary)(const json& record);
  std::string_view advice;
};

constexpr std::string_view kReadStack =
    "Read the stack; with --symbols=FOLDER it has functions and lines. Send the report to the "
    "makers "
    "of QORVA.";

constexpr std::array kEvents = std::to_array<EventMeaning>({
    {"clean_exit", false,
     [](const json& r) {
       return "The process ended in order, with exit code " + ExitText(r) + ".";
     },
     ""},
    {"native_exception", true,
     [](const json& r) {
       return "The process crashed" + ThreadText(r) + ": " +
              CodeText(NumberIn(r, "exception_code")) + ".";
     },
     kReadStack},
    {"std_terminate", true,
     [](const json& r) {
       return "The process crashed" + ThreadText(r) + ": an exception that no code caught.";
     },
     kReadStack},
    {"ui_hang", true,
     [](const json& r) {
       return "The window had not answered for " +
              std::to_string(NumberIn(r, "ui_heartbeat_age_ms") / 1000) + " s" + ThreadText(r) +
              ".";
     },
     kReadStack},
    {"process_exit_cause_unclassified", true,
     [](const json& r) {
       return "The process ended without an order to end, with exit code " + ExitText(r) + ".";
     },
     "Another program or the user has ended it, or it ended itself; the evidence never says who. "
     "Look "
     "into the trace for the last step."},
    {"observer_started", false,
     [](const json& r) {
       return std::string(
           TextIn(r, "capture_status") == "incomplete"
               ? "The process and its observer ended together."
               : "The process was running when this was written; it still runs, or the "
                 "machine stopped.");
     },
     "If the process does not run any more, look whether the machine lost power or was restarted "
     "at "
     "that time."},
});

void DescribeEvent(const json& record, EvidenceFinding* finding) {
  const std::string event = TextIn(record, "event");
  const auto* const meaning =
      std::find_if(kEvents.begin(), kEvents.end(),
                   [&event](const EventMeaning& row) { return row.event == event; });
  if (meaning == kEvents.end()) {
    finding->ended_badly = true;
    finding->summary =
        "The record names an event that this version does not know: '" + event + "'.";
    return;
  }
  finding->ended_badly = meaning->ended_badly;
  finding->summary = meaning->summary(record);
  finding->advice = meaning->advice;
}

bool HasRecord(const fs::Path& folder) {
  return fs::Exists(folder / kIncidentFile) || fs::Exists(folder / kMetadataFile);
}

std::vector<fs::Path> SessionFolders(const fs::Path& folder) {
  if (HasRecord(folder)) return {folder};
  std::vector<fs::Path> sessions;
  std::error_code ec;
  for (const fs::Path& place : {folder, folder / "compact_process"}) {
    for (const fs::DirectoryEntry& entry : fs::ListDirectory(place, ec)) {
      if (entry.kind == fs::EntryKind::kDirectory && HasRecord(entry.path)) {
        sessions.push_back(entry.path);
      }
    }
  }
  std::sort(sessions.begin(), sessions.end());
  return sessions;
}

EvidenceInspection InspectSession(const fs::Path& folder) {
  EvidenceInspection inspection{.folder = PathToUtf8(folder), .end = {}, .hangs = {}};
  json record;
  std::string reason;
  if (!ReadEvidenceRecord(folder / kIncidentFile, &record, &reason) &&
      !ReadEvidenceRecord(folder / kMetadataFile, &record, nullptr)) {
    inspection.end.ended_badly = true;
    inspection.end.summary = "The records are damaged: " + reason + ".";
    return inspection;
  }
  // What the crashing process wrote itself counts when the observer did not finish.
  if (!FlagIn(record, "finalized")) ReadEmergencyFile(folder, &record);
  inspection.end = DescribeEvidence(record);
  if (ReadEvidenceRecord(folder / kHangFile, &record, nullptr)) {
    inspection.hangs.push_back(DescribeEvidence(record));
  }
  return inspection;
}

}  // namespace

std::string CodeText(std::uint64_t code) {
  char hex[24];
  static_cast<void>(
      std::snprintf(hex, sizeof hex, "0x%08llX", static_cast<unsigned long long>(code)));
  if (code < 0x10000) return std::to_string(code);
  for (const CodeName& known : kCodes) {
    if (known.code == code) return std::string(hex) + " (" + std::string(known.name) + ")";
  }
  return hex;
}

EvidenceFinding DescribeEvidence(const json& record) {
  EvidenceFinding finding;
  DescribeEvent(record, &finding);
  finding.build = BuildText(record);
  finding.observed_at = static_cast<std::int64_t>(NumberIn(record, "observed_at_unix_ms") / 1000);
  finding.uptime_ms = NumberIn(record, "process_uptime_ms");
  finding.capture = TextIn(record, "capture_status", "?");
  if (const std::string error = TextIn(record, "capture_error"); !error.empty()) {
    finding.capture += ", " + error;
  }
  finding.frames_limited = FlagIn(record, "frames_limited");
  for (const json& frame : MemberOf(record, "frames")) finding.frames.push_back(FrameOf(frame));
  return finding;
}

bool InspectEvidence(const std::string& path, std::vector<EvidenceInspection>* inspections,
                     std::string* error) {
  std::error_code ec;
  const fs::EntryKind kind = fs::KindOf(PathOrEmpty(path), fs::Links::kFollow, ec);
  if (kind == fs::EntryKind::kNotFound) return Fail(error, "there is no folder '" + path + "'");
  if (kind != fs::EntryKind::kDirectory) return Fail(error, "'" + path + "' is not a folder");
  // A record is read only below folders that are no links.
  for (const fs::Path& session : SessionFolders(fs::WeaklyCanonical(PathOrEmpty(path), ec))) {
    inspections->push_back(InspectSession(session));
  }
  return !inspections->empty() ||
         Fail(error, "there is no evidence in '" + path +
                         "': a session folder is named process_... and holds incident.json");
}

}  // namespace zul
