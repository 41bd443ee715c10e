#pragma once

// The folder of one observed process, <crash folder>/compact_process/process_*: how it comes, which
// names it has and may hold, and how it goes away.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/file_layer.h"

namespace zul {

inline constexpr std::string_view kIncidentFile = "incident.json";
inline constexpr std::string_view kEmergencyFile = "emergency.bin";
inline constexpr std::string_view kMetadataFile = "metadata.json";
inline constexpr std::string_view kCollectorFile = "collector.json";
inline constexpr std::string_view kCheckpointFile = "checkpoint.json";
inline constexpr std::string_view kHangFile = "hang.json";

/// Behind the name of a record that is being written.
inline constexpr std::string_view kPartialSuffix = ".partial";

/// Everything that a session folder may hold.
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

/// A to Z, a to z, 0 to 9, '-', '.', '_': what names and words in evidence are made of, so that no
/// path and no sentence fits into one.
[[nodiscard]] bool HasOnlyWordBytes(std::string_view text);

/// True for 8 to 96 word bytes that begin with "process_".
[[nodiscard]] bool IsCompactSessionName(std::string_view name);

/// True for a path that ends as a session's does: a session name in the folder of all sessions.
/// Does not ask the disk.
[[nodiscard]] bool IsCompactSessionPath(const fs::Path& directory);

/// At most this many sessions stand in a crash folder, the new one included.
inline constexpr std::size_t kCompactSessionsMax = 40;

/// Makes the folder of a new session, with its parents. `now_unix_ms` is the wall clock, and
/// `creation_time` that of the process `pid`, 0 when not known. On failure `directory` is left
/// alone, and `reason` gets process_identity_or_path_invalid, collector_directory_unavailable or
/// collector_session_budget_exhausted.
[[nodiscard]] bool CreateCompactSession(const fs::Path& crash_directory, std::uint64_t now_unix_ms,
                                        std::uint32_t pid, std::uint64_t creation_time,
                                        fs::Path* directory, std::string* reason);

/// The session folders of a crash folder, oldest first (by name, which begins with the time of the
/// start), each of them safe. None where the folder of all sessions is missing or not safe, and an
/// error code when it could not be listed to the end.
[[nodiscard]] std::vector<fs::Path> ListCompactSessions(const fs::Path& crash_directory,
                                                        std::error_code& ec);

/// Deletes the files of a session and then its folder. Refuses quietly what is not a session folder
/// in its place. Never deletes by recursion: a folder with anything unknown in it stays. True when
/// the folder was removed.
bool DeleteCompactSession(const fs::Path& directory);

}  // namespace zul
