#pragma once

// The copy of a record that may leave the machine.

#include <nlohmann/json.hpp>
#include <string_view>

namespace zul {

/// At most this many frames of a stack are recorded.
inline constexpr std::size_t kEvidenceFramesMax = 48;

/// True for 1 to 128 word bytes (HasOnlyWordBytes). Any other text is left out and not cut, since a
/// part of a path can be as private as the whole.
[[nodiscard]] bool IsEvidenceWord(std::string_view text);

/// Builds a new record from the allowed keys of `record`, which may be any JSON value: words,
/// non-negative integers and flags with known names, and stack frames of modules and offsets. The
/// result always holds two promises: external_terminator_identified is false, since no other
/// process is ever named as the cause of the end, and memory_contents_uploaded is false.
[[nodiscard]] nlohmann::json SanitizeEvidenceRecord(const nlohmann::json& record);

}  // namespace zul
