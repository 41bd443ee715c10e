#pragma once

// The JSON records of a session folder: small, self-describing, written by one process, read by
// another and trusted by neither.
//
// A record is committed through "<name>.partial" and one rename, so a reader finds the old record
// or the new one, whole. A process that dies in between leaves a ".partial", which the next commit
// of that name replaces. docs/formats/evidence.md has the keys.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "collector/process_life.h"
#include "core/file_layer.h"

namespace zul {

inline constexpr std::string_view kEvidenceSchema = "qorva.compact_process_evidence.v1";

/// The largest record, its last line feed included.
inline constexpr std::size_t kEvidenceBytesMax = 131072;

/// The deepest nesting of arrays and objects in a record. Copying and dumping JSON recurses, and a
/// file of nothing but brackets must not be able to exhaust a reader's stack.
inline constexpr int kEvidenceDepthMax = 32;

/// What a session's first records say: this build, the observed process, the time (milliseconds
/// since 1970), and that nothing has happened yet.
[[nodiscard]] nlohmann::json BuildBaseRecord(const ProcessKey& observed, std::uint64_t now_unix_ms);

/// Writes `record` to `path`, replacing what is there. On failure the old record stays, nothing
/// else is left behind, and `error` (may be null) gets one of the reason words
/// record_directory_unsafe, record_size_limit, record_temporary_unsafe, record_open_failed,
/// record_commit_failed. Text that is not UTF-8 is written with replacement characters. Blocks
/// until the device has the record.
[[nodiscard]] bool CommitEvidenceRecord(const fs::Path& path, const nlohmann::json& record,
                                        std::string* error);

/// Reads a record. `record` changes only on success; on failure `error` (may be null) gets
/// record_missing_unsafe_or_oversized, record_size_invalid or record_schema_invalid. What a record
/// holds beside its schema is for the caller to judge.
[[nodiscard]] bool ReadEvidenceRecord(const fs::Path& path, nlohmann::json* record,
                                      std::string* error);

/// The JSON object that a file's bytes are, from first to last, nested at most `kEvidenceDepthMax`
/// deep; nothing for any other bytes. Of a key that stands there twice the last one counts.
[[nodiscard]] std::optional<nlohmann::json> ParseBoundedObject(std::string_view bytes);

/// The judgement of `ReadEvidenceRecord` on a file's bytes: such an object of this schema.
[[nodiscard]] std::optional<nlohmann::json> ParseEvidenceRecord(std::string_view bytes);

/// The process that a record names with `pid` and `process_identity`; nothing when either is
/// missing or of another type.
[[nodiscard]] std::optional<ProcessKey> ProcessKeyOf(const nlohmann::json& record);

}  // namespace zul
