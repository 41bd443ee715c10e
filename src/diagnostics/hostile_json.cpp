#include "diagnostics/hostile_json.h"

#include <optional>

#include "collector/evidence_record.h"
#include "core/bounded_read.h"
#include "core/text.h"

namespace zul {

using nlohmann::json;

JsonFileState ReadJsonObject(const fs::Path& path, std::size_t max_bytes, json* object) {
  std::string bytes;
  const BoundedReadResult read = ReadBounded(PathToUtf8(path), max_bytes, bytes);
  if (read.status == kBoundedReadTooLarge) return JsonFileState::kNotAnObject;
  if (read.status != kBoundedReadOk) return JsonFileState::kUnreadable;
  std::optional<json> parsed = ParseBoundedObject(bytes);
  if (!parsed) return JsonFileState::kNotAnObject;
  *object = std::move(*parsed);
  return JsonFileState::kObject;
}

const json& MemberOf(const json& object, const char* key) {
  static const json kNothing;
  if (!object.is_object()) return kNothing;
  const auto member = object.find(key);
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

}  // namespace zul
