#include "collector/retention.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "collector/evidence_record.h"
#include "collector/process_life.h"
#include "collector/safe_path.h"
#include "collector/session_directory.h"
#include "core/file_layer.h"
#include "core/logger.h"
#include "core/text.h"

namespace zul {

namespace {

using nlohmann::json;

constexpr std::size_t kEvidenceKept = 32;

/// All but the newest of `names`, oldest first. Their byte order is the order of the times in them.
std::vector<std::string> AllButTheNewest(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  names.resize(names.size() - std::min(names.size(), kEvidenceKept));
  return names;
}

/// True when the record at `path` is readable and names a process that has ended.
bool NamesEndedProcess(const fs::Path& path) {
  json record;
  if (!ReadEvidenceRecord(path, &record, nullptr)) return false;
  const std::optional<ProcessKey> process = ProcessKeyOf(record);
  return process && !IsProcessAlive(*process);
}

std::vector<std::string> EndedSessions(const fs::Path& crash_directory, std::error_code& ec) {
  std::vector<std::string> names;
  for (const fs::Path& session : ListCompactSessions(crash_directory, ec)) {
    if (NamesEndedProcess(session / kMetadataFile) && NamesEndedProcess(session / kCollectorFile)) {
      names.push_back(PathToUtf8(session.filename()));
    }
  }
  return names;
}

/// The process that the name of a session names, "process_<time of start>_<pid>_<creation time>",
/// which a claim of recovery may follow. Nothing for another name.
std::optional<ProcessKey> ProcessOfSession(const fs::Path& session) {
  const std::string name = PathToUtf8(session.filename());
  std::array<std::uint64_t, 3> numbers{};
  const char* const end = name.data() + name.size();
  const char* at = name.data() + std::min(name.size(), name.find('_'));
  for (std::uint64_t& number : numbers) {
    if (at == end || *at != '_') return std::nullopt;
    const auto [stop, error] = std::from_chars(at + 1, end, number);
    if (error != std::errc()) return std::nullopt;
    at = stop;
  }
  if (at != end && *at != '.') return std::nullopt;
  return ProcessKey{numbers[1], std::to_string(numbers[2])};
}

/// True when the session has an incident record, or a file that may be one: what cannot be read now
/// may be readable later.
bool MayHaveIncident(const fs::Path& session) {
  const fs::Path incident = session / kIncidentFile;
  json record;
  std::string reason;
  if (ReadEvidenceRecord(incident, &record, &reason)) return true;
  std::error_code ec;
  if (fs::KindOf(incident, fs::Links::kDoNotFollow, ec) == fs::EntryKind::kNotFound) return false;
  const bool empty = fs::SizeOf(incident, ec) == 0 && !ec;
  return !empty && reason != "record_schema_invalid";
}

/// Removes the sessions that hold nothing to report: those of ended processes without an incident
/// record. The process ended while it created the folder, or another one while it removed it.
void RemoveEmptySessions(const fs::Path& crash_directory) {
  std::error_code ignored;
  for (const fs::Path& session : ListCompactSessions(crash_directory, ignored)) {
    const std::optional<ProcessKey> process = ProcessOfSession(session);
    if (process && !MayHaveIncident(session) && !IsProcessAlive(*process)) {
      DeleteCompactSession(session);
    }
  }
}

std::vector<std::string> CompactReports(const fs::Path& pending, std::error_code& ec) {
  std::vector<std::string> names;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(pending, ec)) {
    std::string name = PathToUtf8(entry.path.filename());
    if (entry.kind == fs::EntryKind::kRegular && name.starts_with("compact_process_") &&
        name.ends_with(".json")) {
      names.push_back(std::move(name));
    }
  }
  return names;
}

/// Commits retention's own record. The record is for support. A failure to write it is ignored.
void CommitResult(const fs::Path& crash_directory, std::string_view name, json record,
                  std::uint64_t now_unix_ms) {
  record["schema"] = kEvidenceSchema;
  record["observed_at_unix_ms"] = now_unix_ms;
  static_cast<void>(
      CommitEvidenceRecord(CompactDirectory(crash_directory) / name, record, nullptr));
}

}  // namespace

void EnforceCompactRetention(const fs::Path& crash_directory, std::uint64_t now_unix_ms) {
  RemoveEmptySessions(crash_directory);
  std::error_code ec;
  const std::vector<std::string> expired = AllButTheNewest(EndedSessions(crash_directory, ec));
  if (ec || expired.empty()) return;
  const auto removed = std::count_if(expired.begin(), expired.end(), [&](const std::string& name) {
    return DeleteCompactSession(CompactDirectory(crash_directory) / name);
  });
  CommitResult(crash_directory, "retention.json",
               {{"event", "old_completed_evidence_expired"},
                {"expired_sessions", removed},
                {"kept_sessions", kEvidenceKept}},
               now_unix_ms);
}

void EnforceQueueRetention(const fs::Path& crash_directory, std::uint64_t now_unix_ms) {
  const fs::Path pending = crash_directory / "pending_reports";
  if (!IsSafeDirectoryChain(pending)) return;
  std::error_code ec;
  const std::vector<std::string> expired = AllButTheNewest(CompactReports(pending, ec));
  if (ec || expired.empty()) return;
  const auto removed = std::count_if(expired.begin(), expired.end(), [&](const std::string& name) {
    const std::optional<fs::Path> file = PathFromUtf8(name);
    std::error_code ignored;
    return file && fs::Remove(pending / *file, ignored);
  });
  CommitResult(crash_directory, "queue_retention.json",
               {{"expired_pending_reports", removed}, {"kept_reports", kEvidenceKept}},
               now_unix_ms);
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kInfo,
                  "Compact diagnostics retention expired ", std::to_string(removed),
                  " oldest pending report(s); most recent 32 retained. No manual or legacy report "
                  "was removed.");
}

}  // namespace zul
