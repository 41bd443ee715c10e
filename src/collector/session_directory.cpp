#include "collector/session_directory.h"

#include <algorithm>

#include "collector/safe_path.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr std::string_view kCompactDirectoryName = "compact_process";
constexpr std::string_view kSessionPrefix = "process_";
constexpr std::size_t kSessionNameBytesMax = 96;

bool IsWordByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_';
}

}  // namespace

fs::Path CompactDirectory(const fs::Path& crash_directory) {
  return crash_directory / kCompactDirectoryName;
}

bool HasOnlyWordBytes(std::string_view text) {
  return std::all_of(text.begin(), text.end(), IsWordByte);
}

bool IsCompactSessionName(std::string_view name) {
  return name.starts_with(kSessionPrefix) && name.size() <= kSessionNameBytesMax &&
         HasOnlyWordBytes(name);
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
  if (!IsCompactSessionName(PathToUtf8(directory.filename())) ||
      directory.parent_path().filename() != kCompactDirectoryName ||
      !IsSafeDirectoryChain(directory)) {
    return false;
  }
  std::error_code ec;
  for (const std::string_view name : kSessionFiles) {
    if (const fs::Path file = directory / name; IsSafeFile(file)) fs::Remove(file, ec);
  }
  return fs::Remove(directory, ec);
}

}  // namespace zul
