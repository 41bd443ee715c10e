#pragma once

// The form of a record that may leave the machine.

#include <nlohmann/json.hpp>
#include <string_view>

namespace zul {

/// The most frames of a stack that are kept.
inline constexpr std::size_t kEvidenceFramesMax = 48;

/// True for 1 to 128 word bytes (HasOnlyWordBytes). Anything else is left out, not cut: a piece of
/// a path is as private as the whole.
[[nodiscard]] bool IsEvidenceWord(std::string_view text);

/// A new record from `record`, which may be any JSON at all, by a list of what is allowed: words,
/// non-negative integers and flags of known names, and frames of modules and offsets. Two promises
/// are always in it: nobody is said to have ended the process, and no memory goes with the report.
[[nodiscard]] nlohmann::json SanitizeEvidenceRecord(const nlohmann::json& record);

}  // namespace zul
