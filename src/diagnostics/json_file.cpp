#include "diagnostics/json_file.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "collector/evidence_record.h"
#include "core/bounded_read.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"
#include "diagnostics/diagnostics_log.h"

namespace zul {

using nlohmann::json;

namespace {

/// Creates `path` and writes it to the device. An existing entry of that name is a leftover.
bool WriteTemporary(const fs::Path& path, std::string_view text) {
  std::error_code ec;
  fs::Remove(path, ec);
  fs::File file = fs::CreateNewFileItself(path, ec);
  if (!file.is_open()) {
    LogDiagnosticsFailure("upload evidence rewrite open", "stream open failed");
    return false;
  }
  if (fs::WriteAll(file, text.data(), text.size(), ec) && file.Flush(ec) && file.Close(ec)) {
    return true;
  }
  LogDiagnosticsFailure("upload evidence rewrite write", "stream write failed");
  return false;
}

}  // namespace

std::vector<fs::Path> ListJsonFiles(const fs::Path& folder, std::error_code& ec) {
  std::vector<fs::Path> files;
  for (fs::DirectoryEntry& entry : fs::ListDirectory(folder, ec)) {
    if (entry.kind == fs::EntryKind::kRegular && entry.path.extension() == ".json") {
      files.push_back(std::move(entry.path));
    }
  }
  std::sort(files.begin(), files.end(), [](const fs::Path& a, const fs::Path& b) {
    return PathToUtf8(a.filename()) < PathToUtf8(b.filename());
  });
  return files;
}

JsonFileState ReadJsonObject(const fs::Path& path, std::size_t max_bytes, json* object,
                             std::string* message) {
  std::string bytes;
  BoundedReadResult read = ReadBounded(PathToUtf8(path), max_bytes, &bytes);
  if (message != nullptr) *message = std::move(read.message);
  if (read.status == kBoundedReadTooLarge) return JsonFileState::kNotAnObject;
  if (read.status != kBoundedReadOk) return JsonFileState::kUnreadable;
  std::optional<json> parsed = ParseBoundedObject(bytes);
  if (!parsed) return JsonFileState::kNotAnObject;
  *object = std::move(*parsed);
  return JsonFileState::kObject;
}

bool WriteJsonFile(const fs::Path& path, const json& content) {
  const std::string text = content.dump(2, ' ', false, json::error_handler_t::replace);
  fs::Path temporary = path;
  temporary += ".tmp." + std::to_string(CurrentProcessId());
  std::error_code ec;
  // A missing folder shows when the file is opened.
  static_cast<void>(fs::CreateDirectories(path.parent_path(), ec));
  bool done = WriteTemporary(temporary, text);
  if (done && !fs::MoveReplacingWhole(temporary, path, ec)) {
    LogDiagnosticsFailure("upload evidence rewrite commit", SystemErrorText(ec));
    done = false;
  }
  if (!done) fs::Remove(temporary, ec);
  return done;
}

const json& MemberOf(const json& object, const char* key) {
  static const json kNothing;
  const auto member = object.find(key);  // finds nothing in a value of another type
  return member == object.end() ? kNothing : *member;
}

std::uint64_t NumberIn(const json& object, const char* key) {
  const json& member = MemberOf(object, key);
  if (!member.is_number_integer()) return 0;
  const bool negative = !member.is_number_unsigned() && member.get<std::int64_t>() < 0;
  return negative ? 0 : member.get<std::uint64_t>();
}

std::string TextIn(const json& object, const char* key, const char* otherwise) {
  const json& member = MemberOf(object, key);
  return member.is_string() ? member.get<std::string>() : otherwise;
}

bool FlagIn(const json& object, const char* key) {
  const json& member = MemberOf(object, key);
  return member.is_boolean() && member.get<bool>();
}

std::map<std::string, std::string> TextsIn(const json& object) {
  std::map<std::string, std::string> texts;
  if (!object.is_object()) return texts;
  for (const auto& [key, value] : object.items()) {
    if (value.is_string()) texts.emplace(key, value.get<std::string>());
  }
  return texts;
}

json* ObjectIn(json* object, const char* key) {
  json& member = (*object)[key];
  if (!member.is_object()) member = json::object();
  return &member;
}

}  // namespace zul
