#pragma once

// The JSON records of a session folder. One process writes a record and another reads it; the
// reader trusts nothing in it.
//
// A commit writes "<name>.partial" and renames it, so that a reader finds the whole old record or
// the whole new one. A process that ends during a commit leaves the ".partial", and the next commit
// of that name replaces it. docs/formats/evidence.md lists the keys.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "collector/process_life.h"
#include "core/path.h"

namespace zul {

/// The `schema` of every record.
inline constexpr std::string_view kEvidenceSchema = "qorva.compact_process_evidence.v1";

/// The size limit of a record, with its last line feed.
inline constexpr std::size_t kEvidenceBytesMax = 131072;

/// The nesting limit of arrays and objects in a record. Copying and dumping JSON recurses, so
/// without a limit a file of brackets could exhaust a reader's stack.
inline constexpr int kEvidenceDepthMax = 32;

/// The first record of a session: this build, the observed process, the time in milliseconds since
/// 1970, and the event observer_started.
[[nodiscard]] nlohmann::json BuildBaseRecord(const ProcessKey& observed, std::uint64_t now_unix_ms);

/// Writes `record` to `path`, replacing an older record. Returns when the record is on the device.
/// Blocks for 200 ms more while another process has the record open.
/// Text that is not valid UTF-8 is written with replacement characters. On failure the old record
/// and no other file remains, and `error` (may be null) gets record_directory_unsafe,
/// record_size_limit, record_temporary_unsafe, record_open_failed or record_commit_failed.
[[nodiscard]] bool CommitEvidenceRecord(const fs::Path& path, const nlohmann::json& record,
                                        std::string* error);

/// Reads a record and checks that it is a JSON object of our schema. Nothing else in it is checked.
/// On failure `record` stays unchanged, and `error` (may be null) gets
/// record_missing_unsafe_or_oversized, record_size_invalid or record_schema_invalid.
[[nodiscard]] bool ReadEvidenceRecord(const fs::Path& path, nlohmann::json* record,
                                      std::string* error);

/// The JSON object that `bytes` are, nested at most `kEvidenceDepthMax` deep; nothing for any other
/// bytes. The last one of equal keys counts.
[[nodiscard]] std::optional<nlohmann::json> ParseBoundedObject(std::string_view bytes);

/// As `ParseBoundedObject`, and the object must have our schema: the check of `ReadEvidenceRecord`.
[[nodiscard]] std::optional<nlohmann::json> ParseEvidenceRecord(std::string_view bytes);

/// The process that a record names with `pid` and `process_identity`; nothing when either is
/// missing or of another type.
[[nodiscard]] std::optional<ProcessKey> ProcessKeyOf(const nlohmann::json& record);

}  // namespace zul
