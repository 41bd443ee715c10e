#pragma once

// The forms of a session in which it leaves its process: bounded and sanitised, from JSON that may
// have been edited since it was written. Inside the room only.

#include <cstddef>
#include <nlohmann/json.hpp>

namespace zul {

/// How much of a session's breadcrumbs is kept.
struct BreadcrumbLimits {
  std::size_t count;
  std::size_t fields;
  std::size_t key_bytes;
  std::size_t value_bytes;
};
inline constexpr BreadcrumbLimits kCompactBreadcrumbs{32, 8, 64, 128};
/// As many as a session itself keeps.
inline constexpr BreadcrumbLimits kSessionBreadcrumbs{64, 16, 128, 259};

/// The latest steps of an array of breadcrumbs, sanitised. `*cut` becomes true when a text was cut;
/// may be null, as the array may be anything.
[[nodiscard]] nlohmann::json SanitizeBreadcrumbs(const nlohmann::json& breadcrumbs,
                                                 const BreadcrumbLimits& limits, bool* cut);

/// At most 80 texts of a runtime state, sanitised, each of at most 256 bytes.
[[nodiscard]] nlohmann::json SanitizeRuntimeState(const nlohmann::json& runtime_state, bool* cut);

/// The `app` object of an earlier process: the known keys with values of the right types.
[[nodiscard]] nlohmann::json SanitizeAppObject(const nlohmann::json& app);

/// The checkpoint record of a compact session, from a session or from such a record.
[[nodiscard]] nlohmann::json BuildCompactCheckpoint(const nlohmann::json& session);

}  // namespace zul
