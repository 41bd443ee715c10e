// Crash dumps of the long-running application, which shares the crash folder; the updater itself
// writes none.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/logger.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/diagnostic_names.h"
#include "diagnostics/recovered_report.h"
#include "diagnostics/report_manifest.h"
#include "diagnostics/report_text.h"
#include "diagnostics/session_recovery.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::string_view kDumpSuffix = ".dmp";
constexpr std::string_view kPartialDumpSuffix = ".dmp.partial";
constexpr std::size_t kLogTailLines = 400;

/// A dump by what its name and size say.
struct OrphanDump {
  fs::Path path;
  fs::Path text_file;  ///< the report beside it, which marks it as seen
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

std::string DumpReportText(const OrphanDump& dump) {
  std::string text = "QORVA recovered crash report";
  text += "\ntime_local=" + LocalTimeText();
  text += "\nreason=" + std::string(WordsOf(dump).text);
  text += "\ndump_size_bytes=" + std::to_string(dump.size_bytes);
  text += "\nlog_path=" + GetLogger().CurrentPath();
  text += "\n\n=== recent log tail ===\n";
  for (const std::string& line : GetLogger().RecentLines(kLogTailLines)) {
    text += ReportSentence(line) + "\n";
  }
  return text;
}

bool QueueDumpReport(const OrphanDump& dump) {
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
  json manifest = BuildReportManifest(request);
  manifest["details"]["dump"] = ArtifactMetadata(dump.path);
  return WriteManifestFile(manifest, nullptr);
}

void RecoverDump(OrphanDump dump) {
  std::error_code ec;
  if (fs::KindOf(dump.text_file, fs::Links::kDoNotFollow, ec) != fs::EntryKind::kNotFound) return;
  dump.size_bytes = fs::SizeOf(dump.path, ec);
  if (ec) return LogDiagnosticsFailure("crash dump recovery", SystemErrorText(ec));
  // Making the text file is also what claims the dump: one process only can make it.
  if (!WriteReportText(dump.text_file, DumpReportText(dump), "recovered crash report")) return;
  if (!QueueDumpReport(dump)) {
    fs::Remove(dump.text_file, ec);
    return;
  }
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kInfo,
                  "Diagnostics recovered orphan crash dump: ", PathToUtf8(dump.path.filename()));
}

}  // namespace

void RecoverOrphanDumps(const fs::Path& crash_directory) {
  for (OrphanDump& dump : ListDumps(crash_directory)) {
    RunGuarded("crash dump recovery", [&] { RecoverDump(std::move(dump)); });
  }
}

}  // namespace zul
