#pragma once

// Decodes the names of ZIP entries and decides which names may become files. The names in an
// archive are bytes in an encoding that is often not declared. They are converted to UTF-8, and
// then to a relative path that has one meaning on every Windows file system.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zul {

struct DecodedZipName {
  std::string name;                ///< UTF-8, with the separators of the archive
  bool unicode_path_used = false;  ///< `name` is from the extra field
};

/// Decodes a name field. Bytes that are valid UTF-8 are read as UTF-8, also when the archive does
/// not declare it (flag bit 11), because many writers leave the bit clear. For other bytes the name
/// is that of the Info-ZIP Unicode path record in `extra`, if there is one with the CRC-32 of these
/// bytes; otherwise they are read as CP866 or Windows-1251, whichever text has the higher score.
[[nodiscard]] DecodedZipName DecodeZipEntryName(std::string_view raw, std::string_view extra);

/// True when a decoded name names a directory: it ends in `/` or `\`.
[[nodiscard]] bool IsZipDirectoryName(std::string_view name);

/// Converts a decoded name into a relative path with `/` between its components and none at the
/// end. False, with `*path` unchanged, for a name that could leave the extraction root, or that
/// Windows would read as another name or as a device.
[[nodiscard]] bool NormalizeZipEntryPath(std::string name, bool is_directory, std::string* path);

/// True when a component of the path is "__MACOSX" or ".DS_Store" (in any case) or begins with
/// "._": files that macOS adds to archives.
[[nodiscard]] bool IsArchiveMetadataPath(std::string_view path);

/// One record of an extra field (PKWARE APPNOTE 4.5.1).
struct ZipExtraRecord {
  std::uint16_t id = 0;
  std::string_view data;
};

/// Removes the first record from `*rest` and returns it; nothing when no whole record is left.
[[nodiscard]] std::optional<ZipExtraRecord> TakeZipExtraRecord(std::string_view* rest);

enum class LegacyCodePage { kCp866, kWindows1251 };

struct LegacyZipName {
  std::string name;  ///< UTF-8
  int score = 0;     ///< higher for text that is more likely a file name
};

/// Decodes bytes by the published mapping of a code page; an unassigned byte becomes U+FFFD.
[[nodiscard]] LegacyZipName DecodeLegacyZipName(std::string_view raw, LegacyCodePage code_page);

/// Little-endian numbers at any offset, aligned or not, which must be inside `bytes`.
[[nodiscard]] std::uint16_t LittleEndian16(std::string_view bytes, std::size_t at);
[[nodiscard]] std::uint32_t LittleEndian32(std::string_view bytes, std::size_t at);
[[nodiscard]] std::uint64_t LittleEndian64(std::string_view bytes, std::size_t at);

}  // namespace zul
