#pragma once

// What a careful person wants to know about the files of a package, as functions of the scan alone.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "package/zip_scan.h"

namespace zul {

/// The installation folder that the lengths of paths are judged for.
inline constexpr std::string_view kUsualInstallation = "C:\\Program Files\\QORVA";

/// Programs that are not prepared for long paths open paths of at most so many UTF-16 units.
inline constexpr std::size_t kOrdinaryPathUnitsMax = 259;

/// Paths are relative to the installation, UTF-8, with `/` separators.
struct PayloadFacts {
  std::uint64_t files = 0;  ///< that will be installed
  std::uint64_t bytes = 0;
  std::vector<std::uint64_t> file_bytes;     ///< the size of each
  std::vector<std::string> beside_wrapper;   ///< not installed: they are not in the wrapper folder
  std::vector<std::string> links;            ///< links that become text files
  std::vector<std::string> long_paths;       ///< too long below the usual installation
  std::vector<std::string> binaries;         ///< programs and libraries
  std::vector<std::string> removed_retired;  ///< retired executables that the update removes
  std::vector<std::string> top_level_files;
};

/// Describes the files of an accepted archive. `wrapper` is the single top-level folder that holds
/// the payload; empty for a flat package.
[[nodiscard]] PayloadFacts DescribePayload(const std::vector<ZipEntryRecord>& entries,
                                           std::string_view wrapper);

/// Two paths that are one on Windows, because its file systems ignore the case of letters beyond
/// ASCII too.
struct WindowsCollision {
  ZipRefusedEntry entry;
  std::string message;  ///< that of the updater on Windows
};

/// The first such collision of an archive that was accepted on a system that distinguishes case.
/// Knows the letters of Latin-1, Latin Extended-A, Greek and Cyrillic.
[[nodiscard]] std::optional<WindowsCollision> FindWindowsCollision(
    const std::vector<ZipEntryRecord>& entries);

/// The length of a UTF-8 text in UTF-16 units.
[[nodiscard]] std::size_t Utf16Units(std::string_view text);

/// Room that an update needs at most, in bytes. The installation's part is counted by the same code
/// as before the changes of an update, for clusters of 4 KiB. The installation is unknown here, so
/// each number supposes the old files that take most.
struct RoomNeeded {
  std::uint64_t temporary = 0;     ///< package, unpacked files, and the backup of a file for each
  std::uint64_t installation = 0;  ///< when every file is new
};
[[nodiscard]] RoomNeeded RoomFor(std::uint64_t package_bytes, std::uint64_t unpacked_bytes,
                                 const PayloadFacts& payload);

}  // namespace zul
