#pragma once

// JSON files of sessions and reports. A reader finds the old content or the new one, whole. Anyone
// may have edited a file since it was written, so the accessors take a member of the wrong type for
// a missing one.

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <vector>

#include "core/file_layer.h"

namespace zul {

/// The files "*.json" in a folder, sorted by name.
[[nodiscard]] std::vector<fs::Path> ListJsonFiles(const fs::Path& folder, std::error_code& ec);

enum class JsonFileState {
  kObject,
  kNotAnObject,  ///< too large, or refused by `ParseBoundedObject`
  kUnreadable,   ///< absent, or the system refuses to read it
};

/// Reads a file of at most `max_bytes` that holds one JSON object. `*object` changes only on
/// success. `message` (may be null) receives why an existing file is kUnreadable.
[[nodiscard]] JsonFileState ReadJsonObject(const fs::Path& path, std::size_t max_bytes,
                                           nlohmann::json* object, std::string* message = nullptr);

/// Writes `content` with an indent of 2 through "<path>.tmp.<pid>" and one rename, and creates the
/// folder. Blocks until the device has the data. On failure the old file stays, and the failure is
/// logged.
[[nodiscard]] bool WriteJsonFile(const fs::Path& path, const nlohmann::json& content);

/// The member `key` of an object; a null value when there is none.
[[nodiscard]] const nlohmann::json& MemberOf(const nlohmann::json& object, const char* key);

/// Its value when it is a non-negative integer, else 0.
[[nodiscard]] std::uint64_t NumberIn(const nlohmann::json& object, const char* key);

/// Its value when it is a string, else `otherwise`.
[[nodiscard]] std::string TextIn(const nlohmann::json& object, const char* key,
                                 const char* otherwise = "");

/// True when its value is true.
[[nodiscard]] bool FlagIn(const nlohmann::json& object, const char* key);

/// The members of an object that are strings, by key. None for anything but an object.
[[nodiscard]] std::map<std::string, std::string> TextsIn(const nlohmann::json& object);

/// The member `key` for writing. A missing member, or one of another type, becomes an empty object.
[[nodiscard]] nlohmann::json* ObjectIn(nlohmann::json* object, const char* key);

}  // namespace zul
