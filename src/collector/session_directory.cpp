#include "collector/session_directory.h"

#include <algorithm>

#include "collector/safe_path.h"
#include "core/failure.h"
#include "core/file_layer.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::string_view kCompactDirectoryName = "compact_process";
constexpr std::string_view kSessionPrefix = "process_";
constexpr std::size_t kSessionNameBytesMax = 96;
constexpr std::size_t kCompactSessionsMax = 40;

std::string SessionName(std::uint64_t now_unix_ms, std::uint32_t pid, std::uint64_t creation_time) {
  return std::string(kSessionPrefix) + std::to_string(now_unix_ms) + "_" + std::to_string(pid) +
         "_" + std::to_string(creation_time);
}

bool IsWordByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_';
}

bool IsCompactSessionName(std::string_view name) {
  return name.starts_with(kSessionPrefix) && name.size() <= kSessionNameBytesMax &&
         HasOnlyWordBytes(name);
}

/// Counts by name alone: an entry of any kind counts.
bool IsWithinBudget(const fs::Path& all_sessions) {
  std::error_code ec;
  const std::vector<fs::DirectoryEntry> entries = fs::ListDirectory(all_sessions, ec);
  const auto sessions = std::count_if(entries.begin(), entries.end(), [](const auto& entry) {
    return IsCompactSessionName(PathToUtf8(entry.path.filename()));
  });
  return !ec && static_cast<std::size_t>(sessions) <= kCompactSessionsMax;
}

}  // namespace

fs::Path CompactDirectory(const fs::Path& crash_directory) {
  return crash_directory / kCompactDirectoryName;
}

bool HasOnlyWordBytes(std::string_view text) {
  return std::all_of(text.begin(), text.end(), IsWordByte);
}

bool IsCompactSessionPath(const fs::Path& directory) {
  return IsCompactSessionName(PathToUtf8(directory.filename())) &&
         directory.parent_path().filename() == kCompactDirectoryName;
}

bool CreateCompactSession(const fs::Path& crash_directory, std::uint64_t now_unix_ms,
                          std::uint32_t pid, std::uint64_t creation_time, fs::Path* directory,
                          std::string* reason) {
  const fs::Path all = CompactDirectory(crash_directory);
  const fs::Path session = all / SessionName(now_unix_ms, pid, creation_time);
  if (creation_time == 0 || session.native().size() > kSessionDirectoryUnitsMax) {
    return Fail(reason, "process_identity_or_path_invalid");
  }
  std::error_code ec;
  if (!fs::CreateDirectories(all, ec) || !IsSafeDirectoryChain(all) ||
      fs::CreateDirectoryOnce(session, ec) != fs::CreateResult::kCreated) {
    return Fail(reason, "collector_directory_unavailable");
  }
  if (!IsWithinBudget(all)) {
    fs::Remove(session, ec);
    return Fail(reason, "collector_session_budget_exhausted");
  }
  *directory = session;
  return true;
}

std::vector<fs::Path> ListCompactSessions(const fs::Path& crash_directory, std::error_code& ec) {
  ec.clear();
  std::vector<fs::Path> sessions;
  const fs::Path all = CompactDirectory(crash_directory);
  if (!IsSafeDirectoryChain(all)) return sessions;
  for (fs::DirectoryEntry& entry : fs::ListDirectory(all, ec)) {
    if (IsCompactSessionName(PathToUtf8(entry.path.filename())) &&
        IsSafeDirectoryChain(entry.path)) {
      sessions.push_back(std::move(entry.path));
    }
  }
  std::sort(sessions.begin(), sessions.end());
  return sessions;
}

bool DeleteCompactSession(const fs::Path& directory) {
  if (!IsCompactSessionPath(directory) || !IsSafeDirectoryChain(directory)) return false;
  std::error_code ec;
  for (const std::string_view name : kSessionFiles) {
    if (const fs::Path file = directory / name; IsSafeFile(file)) fs::Remove(file, ec);
  }
  return fs::Remove(directory, ec);
}

}  // namespace zul
