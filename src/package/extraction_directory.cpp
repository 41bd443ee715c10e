#include "package/extraction_directory.h"

#include <algorithm>
#include <atomic>
#include <iterator>

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/logger.h"
#include "core/text.h"

namespace zul {

namespace {

constexpr int kNameAttempts = 128;
constexpr int kRenameRetries = 40;
constexpr std::chrono::milliseconds kRenameRetryDelay{50};

bool IsTransient(const std::error_code& code) {
  return code == std::errc::permission_denied || code == std::errc::device_or_resource_busy ||
         code == std::errc::resource_unavailable_try_again || code == std::errc::text_file_busy;
}

bool IsSameFolded(const fs::Path& a, const fs::Path& b) {
  return AsciiLower(PathToGenericUtf8(a)) == AsciiLower(PathToGenericUtf8(b));
}

void RemoveTreeIfPossible(const fs::Path& path, const KeepAlive& keep_alive) {
  std::error_code ignored;
  fs::RemoveTree(path, ignored, keep_alive);
}

void RemoveOldBackup(const fs::Path& backup_dir, const KeepAlive& keep_alive) {
  std::error_code code;
  if (fs::RemoveTree(backup_dir, code, keep_alive)) return;
  GetLogger().Log(LogCategory::kUpdater, LogLevel::kWarn,
                  "ZIP extraction committed successfully, but old backup cleanup failed at '",
                  PathToUtf8(backup_dir), "': ", FormatFileError(code));
}

bool RenameKeepingAlive(const fs::Path& from, const fs::Path& to, std::error_code& code,
                        const KeepAlive& keep_alive) {
  return RenameWithRetry(from, to, code, [&keep_alive](std::chrono::milliseconds duration) {
    SleepKeepingAlive(duration, keep_alive);
  });
}

// Moves the previous tree back after a failed publish. Returns what the failure's message has to
// add: empty when the tree is back.
std::string RestorePrevious(const fs::Path& backup_dir, const fs::Path& previous,
                            const fs::Path& destination, const KeepAlive& keep_alive) {
  std::error_code code;
  if (RenameKeepingAlive(previous, destination, code, keep_alive)) {
    RemoveTreeIfPossible(backup_dir, keep_alive);
    return {};
  }
  return "; rollback failed: " + FormatFileError(code) + "; previous destination preserved at " +
         PathToUtf8(previous);
}

}  // namespace

std::string FormatFileError(const std::error_code& error_code) {
  return DescribeSystemError(error_code);
}

bool CreateUniqueSiblingDirectory(const fs::Path& base_path, std::string_view prefix,
                                  fs::Path* path, std::string* error) {
  static std::atomic<std::uint64_t> counter{0};
  const fs::Path parent = base_path.has_parent_path() ? base_path.parent_path() : fs::Path(".");
  std::error_code code;
  if (!fs::CreateDirectories(parent, code)) {
    return Fail(error, "Cannot create extraction parent directory: ", code);
  }
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  const auto time_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    const std::string name = std::string(prefix) + "." + std::to_string(time_ns) + "." +
                             std::to_string(counter++) + "." + std::to_string(attempt);
    *path = parent / name;
    switch (fs::CreateDirectoryOnce(*path, code)) {
      case fs::CreateResult::kCreated:
        return true;
      case fs::CreateResult::kExisted:
        break;
      case fs::CreateResult::kFailed:
        return Fail(error, "Cannot create unique extraction directory: ", code);
    }
  }
  return Fail(error, "Cannot allocate unique extraction directory");
}

bool CheckFreeSpaceForExtraction(const fs::Path& stage_dir, std::uint64_t required_bytes,
                                 std::string* error) {
  std::error_code code;
  const std::uint64_t available_bytes = fs::AvailableSpace(stage_dir, code);
  if (code) return Fail(error, "cannot determine free space for ZIP extraction: ", code);
  if (required_bytes <= available_bytes) return true;
  return Fail(error, "not enough disk space for ZIP extraction: required " +
                         std::to_string(required_bytes) + " bytes, available " +
                         std::to_string(available_bytes) + " bytes");
}

bool IsPathInsideRootFolded(const fs::Path& root, const fs::Path& candidate) {
  const auto [root_rest, candidate_rest] =
      std::mismatch(root.begin(), root.end(), candidate.begin(), candidate.end(), IsSameFolded);
  return root_rest == root.end() && candidate_rest != candidate.end();
}

bool RenameWithRetry(const fs::Path& from, const fs::Path& to, std::error_code& error_code,
                     const RetrySleep& sleep) {
  for (int retries = 0;; ++retries) {
    if (fs::Rename(from, to, error_code)) return true;
    if (retries == kRenameRetries || !IsTransient(error_code)) return false;
    sleep(kRenameRetryDelay);
  }
}

bool CommitExtractionDirectory(const fs::Path& stage_dir, const fs::Path& destination,
                               std::string* error, const KeepAlive& keep_alive) {
  std::error_code code;
  const fs::EntryKind kind = fs::KindOf(destination, fs::Links::kDoNotFollow, code);
  if (kind == fs::EntryKind::kUnknown) {
    return Fail(error, "Cannot inspect extraction destination: ", code);
  }
  if (kind == fs::EntryKind::kNotFound) {
    return RenameKeepingAlive(stage_dir, destination, code, keep_alive) ||
           Fail(error, "Cannot finalize extraction directory: ", FormatFileError(code));
  }
  fs::Path backup_dir;
  if (!CreateUniqueSiblingDirectory(destination, ".qorva-zip-backup", &backup_dir, error)) {
    return false;
  }
  const fs::Path previous = backup_dir / "previous";
  if (!RenameKeepingAlive(destination, previous, code, keep_alive)) {
    std::error_code ignored;
    fs::Remove(backup_dir, ignored);
    return Fail(error, "Cannot stage previous extraction directory: ", FormatFileError(code));
  }
  if (RenameKeepingAlive(stage_dir, destination, code, keep_alive)) {
    RemoveOldBackup(backup_dir, keep_alive);
    return true;
  }
  std::string message = "Cannot finalize extraction directory: " + FormatFileError(code);
  message += RestorePrevious(backup_dir, previous, destination, keep_alive);
  RemoveTreeIfPossible(stage_dir, keep_alive);
  return Fail(error, message);
}

}  // namespace zul
