// The recovery of crash dumps.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/file_layer.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/diagnostics_log.h"
#include "diagnostics/json_file.h"
#include "diagnostics/recovery.h"
#include "diagnostics/report_files.h"
#include "diagnostics/report_text.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::string_view kDumpSuffix = ".dmp";
constexpr std::string_view kPartialDumpSuffix = ".dmp.partial";

/// A dump, as its name and size describe it.
struct OrphanDump {
  fs::Path path;
  fs::Path text_file;  ///< the report text beside it, which marks it as reported
  std::uint64_t size_bytes = 0;
  bool partial = false;

  [[nodiscard]] bool IsComplete() const { return !partial && size_bytes > 0; }
};

struct DumpWords {
  const char* text;  ///< in the report text
  const char* reason;
};

DumpWords WordsOf(const OrphanDump& dump) {
  if (dump.partial) {
    return {"Crash capture was interrupted before the dump was committed",
            "Crash capture left an uncommitted partial dump"};
  }
  if (dump.size_bytes == 0) {
    return {"Crash capture produced an empty orphan dump",
            "Crash capture produced a zero-byte orphan dump"};
  }
  return {"Recovered orphan crash dump after startup", "Recovered orphan crash dump after startup"};
}

std::vector<OrphanDump> ListDumps(const fs::Path& crash_directory) {
  std::vector<OrphanDump> dumps;
  std::error_code ec;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(crash_directory, ec)) {
    const std::string name = PathToUtf8(entry.path.filename());
    const bool partial = name.ends_with(kPartialDumpSuffix);
    if (entry.kind != fs::EntryKind::kRegular || name.find("_crash_") == std::string::npos ||
        (!partial && !name.ends_with(kDumpSuffix))) {
      continue;
    }
    fs::Path text_file = entry.path;
    if (partial) {
      text_file.replace_extension().replace_extension();
      text_file += "_capture_failed.txt";
    } else {
      text_file.replace_extension(".txt");
    }
    dumps.push_back({entry.path, std::move(text_file), 0, partial});
  }
  if (ec) LogDiagnosticsFailure("crash dump recovery", SystemErrorText(ec));
  std::sort(dumps.begin(), dumps.end(),
            [](const OrphanDump& a, const OrphanDump& b) { return a.path < b.path; });
  return dumps;
}

std::string DumpReportText(const OrphanDump& dump, const LogTail& log) {
  std::string text = "QORVA recovered crash report";
  text += "\ntime_local=" + LocalTimeText();
  text += "\nreason=" + std::string(WordsOf(dump).text);
  text += "\ndump_size_bytes=" + std::to_string(dump.size_bytes);
  text += "\nlog_path=" + log.path;
  text += "\n\n=== recent log tail ===\n";
  for (const std::string& line : log.lines) text += ReportSentence(line) + "\n";
  return text;
}

bool QueueDumpReport(const OrphanDump& dump, const RecoverySurroundings& surroundings) {
  ReportRequest request;
  request.kind = dump.IsComplete() ? "crash" : "crash_capture_failed";
  request.reason = WordsOf(dump).reason;
  request.client_report_id =
      MakeDiagnosticId(dump.IsComplete() ? "recovered_crash" : "crash_capture_failed");
  request.report_file = dump.text_file;
  request.dump_file = dump.path;
  request.details = {{"recovered_orphan_dump", "true"},
                     {"partial_dump", dump.partial ? "true" : "false"},
                     {"dump_size_bytes", std::to_string(dump.size_bytes)}};
  const ReportFacts facts = surroundings.facts(request);
  json manifest = BuildReportManifest(request, facts);
  manifest["details"]["dump"] = MemberOf(facts.artifacts, "dump");
  std::string file_name;
  if (!WriteManifestFile(surroundings.crash_directory, manifest, &file_name)) return false;
  if (!dump.IsComplete()) LogReportQueued(file_name);
  return true;
}

void RecoverDump(OrphanDump dump, const RecoverySurroundings& surroundings) {
  std::error_code ec;
  if (fs::KindOf(dump.text_file, fs::Links::kDoNotFollow, ec) != fs::EntryKind::kNotFound) return;
  dump.size_bytes = fs::SizeOf(dump.path, ec);
  if (ec) return LogDiagnosticsFailure("crash dump recovery", SystemErrorText(ec));
  // The text file is also the claim to the dump: only one process can create it.
  const std::string text = DumpReportText(dump, surroundings.log_tail());
  if (!WriteReportText(dump.text_file, text, "recovered crash report")) return;
  if (!QueueDumpReport(dump, surroundings)) {
    fs::Remove(dump.text_file, ec);
    return;
  }
  LogDiagnostics(LogLevel::kInfo,
                 "Diagnostics recovered orphan crash dump: ", PathToUtf8(dump.path.filename()));
}

}  // namespace

void RecoverOrphanDumps(const RecoverySurroundings& surroundings) {
  for (OrphanDump& dump : ListDumps(surroundings.crash_directory)) {
    RunGuarded("crash dump recovery", [&] { RecoverDump(std::move(dump), surroundings); });
  }
}

}  // namespace zul
