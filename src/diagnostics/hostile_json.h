#pragma once

// Reading JSON that an earlier process wrote and anyone may have edited since: a member of the
// wrong type counts as missing.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "core/file_layer.h"

namespace zul {

enum class JsonFileState {
  kObject,
  kNotAnObject,  ///< larger than allowed, or no object as `ParseBoundedObject` takes it
  kUnreadable,   ///< absent, or the system refuses it
};

/// Reads a file of at most `max_bytes` that holds one JSON object. `json` changes only on success.
[[nodiscard]] JsonFileState ReadJsonObject(const fs::Path& path, std::size_t max_bytes,
                                           nlohmann::json* json);

/// The member `key` of an object; a null value when there is none.
[[nodiscard]] const nlohmann::json& MemberOf(const nlohmann::json& object, const char* key);

/// Its value when it is a non-negative integer, else 0.
[[nodiscard]] std::uint64_t NumberIn(const nlohmann::json& object, const char* key);

/// Its value when it is a string, else `otherwise`.
[[nodiscard]] std::string TextIn(const nlohmann::json& object, const char* key,
                                 const char* otherwise = "");

/// True when it is the value true.
[[nodiscard]] bool FlagIn(const nlohmann::json& object, const char* key);

}  // namespace zul
