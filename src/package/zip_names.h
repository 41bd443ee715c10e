#pragma once

// What the name field of a ZIP entry says, and which names may become files. An archive's names are
// bytes in an encoding that is often not declared; here they become UTF-8 and then a relative path
// that no Windows file system reads as anything else.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zul {

struct DecodedZipName {
  std::string name;  ///< UTF-8, separators as they came
  bool unicode_path_used = false;
};

/// Decodes a name field. Bytes that are valid UTF-8 are taken as UTF-8 whether or not the archive
/// declares it (flag bit 11), since many writers leave the bit clear. Other bytes are named by the
/// Info-ZIP Unicode path record in `extra` if there is one for exactly these bytes; else they are
/// read as CP866 or Windows-1251, whichever gives the likelier text.
[[nodiscard]] DecodedZipName DecodeZipEntryName(std::string_view raw, std::string_view extra);

/// True when a decoded name is one of a directory: it ends in a separator of either kind.
[[nodiscard]] bool IsZipDirectoryName(std::string_view name);

/// Turns a decoded name into a relative path with `/` between its components and none at the end.
/// False for a name that could leave the extraction root or that Windows would read as another name
/// or as a device; `path` is then left alone.
[[nodiscard]] bool NormalizeZipEntryPath(std::string name, bool is_directory, std::string* path);

/// True for what macOS adds to archives of its own accord ("__MACOSX", ".DS_Store", "._name"),
/// anywhere in the path.
[[nodiscard]] bool IsArchiveMetadataPath(std::string_view path);

/// One record of an extra field (PKWARE APPNOTE 4.5.1).
struct ZipExtraRecord {
  std::uint16_t id = 0;
  std::string_view data;
};

/// Takes the next record off the front of `rest`. Nothing when less than a record is left.
[[nodiscard]] std::optional<ZipExtraRecord> TakeZipExtraRecord(std::string_view* rest);

enum class LegacyCodePage { kCp866, kWindows1251 };

struct LegacyZipName {
  std::string name;  ///< UTF-8
  int score = 0;     ///< how much the text looks like a file name; higher is likelier
};

/// Reads bytes by the published mapping of a code page; a byte that has none becomes U+FFFD.
[[nodiscard]] LegacyZipName DecodeLegacyZipName(std::string_view raw, LegacyCodePage code_page);

/// Little-endian numbers at any position, aligned or not. The caller knows that they are there.
[[nodiscard]] std::uint16_t LittleEndian16(std::string_view bytes, std::size_t at);
[[nodiscard]] std::uint32_t LittleEndian32(std::string_view bytes, std::size_t at);
[[nodiscard]] std::uint64_t LittleEndian64(std::string_view bytes, std::size_t at);

}  // namespace zul
