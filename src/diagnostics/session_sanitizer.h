#pragma once

// The parts of a session that may leave its process, bounded and sanitised again: the JSON may have
// been edited since it was written. Any argument may be any JSON.

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
/// The limits of a session file: values of 256 bytes and "...".
inline constexpr BreadcrumbLimits kSessionBreadcrumbs{64, 16, 128, 259};

/// The latest steps of an array of breadcrumbs. `*cut` (may be null) becomes true when a text was
/// cut.
[[nodiscard]] nlohmann::json SanitizeBreadcrumbs(const nlohmann::json& breadcrumbs,
                                                 const BreadcrumbLimits& limits, bool* cut);

/// At most 80 texts of a runtime state, each of at most 256 bytes and "...". `cut` as above.
[[nodiscard]] nlohmann::json SanitizeRuntimeState(const nlohmann::json& runtime_state, bool* cut);

/// The `app` object of an earlier process: the known keys with values of their types.
[[nodiscard]] nlohmann::json SanitizeAppObject(const nlohmann::json& app);

/// The record `checkpoint.json` of a session. `session` is a session file or such a record.
[[nodiscard]] nlohmann::json BuildCompactCheckpoint(const nlohmann::json& session);

}  // namespace zul
