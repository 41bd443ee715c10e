#pragma once

// The folder of one observed process, <crash folder>/compact_process/process_*: its creation, its
// name, the files in it, and its deletion.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/path.h"

namespace zul {

/// The longest path of a session's folder, in UTF-16 units: the shared block has room for it and a
/// terminator.
inline constexpr std::size_t kSessionDirectoryUnitsMax = 4095;

/// The files of a session. docs/formats/evidence.md describes their contents.
inline constexpr std::string_view kIncidentFile = "incident.json";
inline constexpr std::string_view kEmergencyFile = "emergency.bin";
inline constexpr std::string_view kMetadataFile = "metadata.json";
inline constexpr std::string_view kCollectorFile = "collector.json";
inline constexpr std::string_view kCheckpointFile = "checkpoint.json";
inline constexpr std::string_view kHangFile = "hang.json";

/// Appended to the name of a record while it is being written.
inline constexpr std::string_view kPartialSuffix = ".partial";

/// All names that a session folder may hold.
inline constexpr std::array<std::string_view, 11> kSessionFiles = {kIncidentFile,
                                                                   "incident.json.partial",
                                                                   kEmergencyFile,
                                                                   kMetadataFile,
                                                                   "metadata.json.partial",
                                                                   kCollectorFile,
                                                                   "collector.json.partial",
                                                                   kCheckpointFile,
                                                                   "checkpoint.json.partial",
                                                                   kHangFile,
                                                                   "hang.json.partial"};

/// The folder of all sessions in a crash folder.
[[nodiscard]] fs::Path CompactDirectory(const fs::Path& crash_directory);

/// True when `text` holds only A to Z, a to z, 0 to 9, '-', '.' and '_'. The names and words in
/// evidence consist of these, so that they cannot hold a path or a sentence.
[[nodiscard]] bool HasOnlyWordBytes(std::string_view text);

/// True when the last component of `directory` is a session name (8 to 96 word bytes that begin
/// with "process_") and its parent is named as the folder of all sessions. Lexical only.
[[nodiscard]] bool IsCompactSessionPath(const fs::Path& directory);

/// Creates the folder of a new session, and its parents. A crash folder holds at most 40 sessions,
/// the new one included. `now_unix_ms` is the wall clock in milliseconds since 1970.
/// `creation_time` is that of the process `pid`, 0 when unknown. On failure `directory` stays
/// unchanged, and `reason` gets process_identity_or_path_invalid, collector_directory_unavailable
/// or collector_session_budget_exhausted.
[[nodiscard]] bool CreateCompactSession(const fs::Path& crash_directory, std::uint64_t now_unix_ms,
                                        std::uint32_t pid, std::uint64_t creation_time,
                                        fs::Path* directory, std::string* reason);

/// The session folders of a crash folder that pass IsSafeDirectoryChain, sorted by name. Names
/// begin with the time of the start, so the oldest session comes first. Empty when the folder of
/// all sessions is missing or unsafe; `ec` is set when it could not be listed to the end.
[[nodiscard]] std::vector<fs::Path> ListCompactSessions(const fs::Path& crash_directory,
                                                        std::error_code& ec);

/// Deletes the known files of a session folder and then the folder. Does nothing to a path that
/// fails IsCompactSessionPath or IsSafeDirectoryChain. Does not recurse: a folder that holds
/// anything else stays. True when the folder was removed.
bool DeleteCompactSession(const fs::Path& directory);

}  // namespace zul
