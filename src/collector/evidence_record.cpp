#include "collector/evidence_record.h"

#include <chrono>
#include <thread>

#include "collector/safe_path.h"
#include "collector/session_directory.h"
#include "core/build_identity.h"
#include "core/failure.h"
#include "core/file_layer.h"
#include "core/system_error.h"

namespace zul {

namespace {

using nlohmann::json;

/// Removes the temporary file of an earlier commit. Anything else with its name stays and fails.
bool ClearTemporary(const fs::Path& temporary) {
  std::error_code ec;
  if (fs::KindOf(temporary, fs::Links::kDoNotFollow, ec) == fs::EntryKind::kNotFound) return true;
  if (!IsSafeFile(temporary)) return false;
  fs::Remove(temporary, ec);
  return !ec;
}

/// Writes all of `text` with one call and flushes it to the device.
bool WriteWhole(fs::File file, std::string_view text) {
  std::error_code ec;
  std::size_t written = 0;
  return file.WriteSome(text.data(), text.size(), &written, ec) && written == text.size() &&
         file.Flush(ec) && file.Close(ec);
}

/// Moves a complete temporary over the record. A scanner, a backup or a recovery that has either
/// file open makes the system refuse this for a moment, so it is tried again for 200 ms: well
/// within the time that a crashing process waits for its observer.
bool Publish(const fs::Path& temporary, const fs::Path& path) {
  constexpr int kAttempts = 11;
  constexpr std::chrono::milliseconds kPause{20};
  std::error_code ec;
  for (int attempt = 1; !fs::MoveReplacingWhole(temporary, path, ec); ++attempt) {
    if (attempt == kAttempts || !IsLockedOrDeniedError(ec)) return false;
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

/// At most `size` bytes from the start of a file; empty also when reading fails.
std::string ReadStart(const fs::Path& path, std::size_t size) {
  std::error_code ec;
  fs::File file = fs::OpenForRead(path, ec);
  if (!file.is_open()) return {};
  std::string bytes(size, '\0');
  std::size_t filled = 0;
  while (filled < size) {
    std::size_t read = 0;
    if (!file.Read(bytes.data() + filled, size - filled, &read, ec)) return {};
    if (read == 0) break;
    filled += read;
  }
  bytes.resize(filled);
  return bytes;
}

}  // namespace

json BuildBaseRecord(const ProcessKey& observed, std::uint64_t now_unix_ms) {
  const BuildIdentity build = GetBuildIdentity();
  return {{"schema", kEvidenceSchema},
          {"version", build.version},
          {"build_id", build.build_id},
          {"channel", build.channel},
          {"platform", build.platform},
          {"arch", build.arch},
          {"pid", observed.pid},
          {"process_identity", observed.identity},
          {"observed_at_unix_ms", now_unix_ms},
          {"event", "observer_started"},
          {"capture_status", "ready"},
          {"finalized", false}};
}

bool CommitEvidenceRecord(const fs::Path& path, const json& record, std::string* error) {
  if (!IsSafeDirectoryChain(path.parent_path())) return Fail(error, "record_directory_unsafe");
  const std::string text = record.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
  if (text.size() > kEvidenceBytesMax) return Fail(error, "record_size_limit");
  fs::Path temporary = path;
  temporary += kPartialSuffix;
  if (!ClearTemporary(temporary)) return Fail(error, "record_temporary_unsafe");
  std::error_code ec;
  fs::File file = fs::CreateNewFileItself(temporary, ec);
  if (!file.is_open()) return Fail(error, "record_open_failed");
  if (WriteWhole(std::move(file), text) && Publish(temporary, path)) return true;
  fs::Remove(temporary, ec);
  return Fail(error, "record_commit_failed");
}

bool ReadEvidenceRecord(const fs::Path& path, json* record, std::string* error) {
  std::error_code ec;
  if (!IsSafeFile(path) || fs::SizeOf(path, ec) > kEvidenceBytesMax || ec) {
    return Fail(error, "record_missing_unsafe_or_oversized");
  }
  // The file may grow after the query for its size; one byte more than the limit shows that.
  const std::string bytes = ReadStart(path, kEvidenceBytesMax + 1);
  if (bytes.empty() || bytes.size() > kEvidenceBytesMax) return Fail(error, "record_size_invalid");
  std::optional<json> parsed = ParseEvidenceRecord(bytes);
  if (!parsed) return Fail(error, "record_schema_invalid");
  *record = std::move(*parsed);
  return true;
}

std::optional<json> ParseBoundedObject(std::string_view bytes) {
  // The parser stops at a NUL and would accept any bytes after it.
  if (bytes.find('\0') != std::string_view::npos) return std::nullopt;
  bool too_deep = false;
  const auto within_depth = [&](int depth, json::parse_event_t /*event*/, json& /*value*/) {
    too_deep = too_deep || depth > kEvidenceDepthMax;
    return !too_deep;
  };
  json object = json::parse(bytes, within_depth, false);
  if (too_deep || !object.is_object()) return std::nullopt;
  return object;
}

std::optional<json> ParseEvidenceRecord(std::string_view bytes) {
  std::optional<json> record = ParseBoundedObject(bytes);
  if (!record) return std::nullopt;
  const auto schema = record->find("schema");
  if (schema == record->end() || *schema != kEvidenceSchema) return std::nullopt;
  return record;
}

std::optional<ProcessKey> ProcessKeyOf(const json& record) {
  const auto pid = record.find("pid");
  const auto identity = record.find("process_identity");
  if (pid == record.end() || !pid->is_number_integer()) return std::nullopt;
  if (identity == record.end() || !identity->is_string()) return std::nullopt;
  // A negative id names no process, as 0 does not.
  return ProcessKey{pid->is_number_unsigned() ? pid->get<std::uint64_t>() : 0,
                    identity->get<std::string>()};
}

}  // namespace zul
