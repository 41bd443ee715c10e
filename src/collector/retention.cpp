#include "collector/retention.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "collector/evidence_record.h"
#include "collector/process_life.h"
#include "collector/safe_path.h"
#include "collector/session_directory.h"
#include "core/logger.h"
#include "core/text.h"

namespace zul {

namespace {

using nlohmann::json;
using State = SessionLife::State;

/// All but the newest of `names`. Compared as bytes, a shorter name before its continuations.
std::vector<std::string> AllButTheNewest(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  names.resize(names.size() - std::min(names.size(), kEvidenceKept));
  return names;
}

/// The state of the process that the record at `path` names.
State StateOfProcessIn(const fs::Path& path) {
  json record;
  if (!ReadEvidenceRecord(path, &record, nullptr)) return State::kUnknown;
  const std::optional<ProcessKey> key = ProcessKeyOf(record);
  if (!key) return State::kUnknown;
  return IsProcessAlive(*key) ? State::kAlive : State::kEnded;
}

SessionLife LifeOf(const fs::Path& session) {
  return {PathToUtf8(session.filename()), StateOfProcessIn(session / kMetadataFile),
          StateOfProcessIn(session / kCollectorFile)};
}

/// Retention's own record. It is told for support only, so a failure to write it is nobody's.
void Note(const fs::Path& crash_directory, std::string_view name, json record,
          std::uint64_t now_unix_ms) {
  record["schema"] = kEvidenceSchema;
  record["observed_at_unix_ms"] = now_unix_ms;
  static_cast<void>(
      CommitEvidenceRecord(CompactDirectory(crash_directory) / name, record, nullptr));
}

std::vector<std::string> FileNamesIn(const fs::Path& folder, std::error_code& ec) {
  std::vector<std::string> names;
  for (const fs::DirectoryEntry& entry : fs::ListDirectory(folder, ec)) {
    if (entry.kind == fs::EntryKind::kRegular) names.push_back(PathToUtf8(entry.path.filename()));
  }
  return names;
}

}  // namespace

std::vector<std::string> ExpiredSessions(const std::vector<SessionLife>& sessions) {
  std::vector<std::string> ended;
  for (const SessionLife& session : sessions) {
    if (session.observed == State::kEnded && session.observer == State::kEnded) {
      ended.push_back(session.name);
    }
  }
  return AllButTheNewest(std::move(ended));
}

std::vector<std::string> ExpiredReports(const std::vector<std::string>& names) {
  std::vector<std::string> reports;
  for (const std::string& name : names) {
    if (name.starts_with("compact_process_") && name.ends_with(".json")) reports.push_back(name);
  }
  return AllButTheNewest(std::move(reports));
}

void EnforceCompactRetention(const fs::Path& crash_directory, std::uint64_t now_unix_ms) {
  std::error_code ec;
  std::vector<SessionLife> sessions;
  for (const fs::Path& session : ListCompactSessions(crash_directory, ec)) {
    sessions.push_back(LifeOf(session));
  }
  const std::vector<std::string> expired = ExpiredSessions(sessions);
  if (ec || expired.empty()) return;
  const auto removed = std::count_if(expired.begin(), expired.end(), [&](const std::string& name) {
    return DeleteCompactSession(CompactDirectory(crash_directory) / name);
  });
  Note(crash_directory, "retention.json",
       {{"event", "old_completed_evidence_expired"},
        {"expired_sessions", removed},
        {"kept_sessions", kEvidenceKept}},
       now_unix_ms);
}

void EnforceQueueRetention(const fs::Path& crash_directory, std::uint64_t now_unix_ms) {
  const fs::Path pending = crash_directory / "pending_reports";
  if (!IsSafeDirectoryChain(pending)) return;
  std::error_code ec;
  const std::vector<std::string> expired = ExpiredReports(FileNamesIn(pending, ec));
  if (ec || expired.empty()) return;
  const auto removed = std::count_if(expired.begin(), expired.end(), [&](const std::string& name) {
    const std::optional<fs::Path> file = PathFromUtf8(name);
    std::error_code ignored;
    return file && fs::Remove(pending / *file, ignored);
  });
  Note(crash_directory, "queue_retention.json",
       {{"expired_pending_reports", removed}, {"kept_reports", kEvidenceKept}}, now_unix_ms);
  GetLogger().Log(LogCategory::kDiagnostics, LogLevel::kInfo,
                  "Compact diagnostics retention expired ", std::to_string(removed),
                  " oldest pending report(s); most recent 32 retained. No manual or legacy report "
                  "was removed.");
}

}  // namespace zul
