#pragma once

// One pass over an archive: each entry of the central directory, its local header and, on request,
// its data. minizip-ng reads the container; this file adds the checks that the library omits.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "package/zip_status.h"

namespace zul {

/// The fields that a central record and a local header share, with Zip64 sizes resolved. The views
/// are borrowed from the reader.
struct ZipHeaderFields {
  std::uint16_t flags = 0;  ///< general purpose bit flag
  std::uint16_t compression_method = 0;
  std::uint32_t crc32 = 0;
  std::int64_t compressed_size = 0;
  std::int64_t uncompressed_size = 0;
  std::string_view name;  ///< the bytes in the file, which may include NUL
  std::string_view extra;
};

/// A record of the central directory. The views are valid until the reader moves to another entry.
struct ZipCentralHeader : ZipHeaderFields {
  std::uint16_t aes_version = 0;
  std::uint16_t version_made_by = 0;      ///< the high byte is the writer's system (APPNOTE 4.4.2)
  std::uint32_t external_attributes = 0;  ///< as that system has them
  std::uint32_t disk_number = 0;
  std::int64_t local_header_offset = 0;
};

/// The bytes [begin, end) of the file.
struct ZipExtent {
  std::int64_t begin = 0;
  std::int64_t end = 0;
};

/// Owns the open file and the library's archive handle. Its states: closed; open; at an entry of
/// the central directory; in that entry, with its local header or its data open. Not for use by two
/// threads at once.
class ZipReader {
 public:
  ZipReader();
  ~ZipReader();
  ZipReader(ZipReader&&) noexcept;
  ZipReader& operator=(ZipReader&&) noexcept;

  /// Opens the archive. Refuses a damaged central directory and never rebuilds it. Call it once.
  [[nodiscard]] ZipStatus Open(std::string_view utf8_path);
  [[nodiscard]] bool is_open() const;

  /// True when the file ends in an end of central directory record; also after `Open` has failed.
  [[nodiscard]] bool HasZipEndRecord();

  /// In bytes.
  [[nodiscard]] std::int64_t file_size() const;
  [[nodiscard]] ZipStatus DeclaredEntryCount(std::uint64_t* count) const;
  [[nodiscard]] ZipStatus DiskWithCentralDirectory(std::uint32_t* disk_number) const;

  /// Walk the central directory. After the last entry: kZipEndOfList, or kZipFormatError when the
  /// records at the end of the archive describe another directory.
  [[nodiscard]] ZipStatus GoToFirstEntry();
  [[nodiscard]] ZipStatus GoToNextEntry();

  /// The record that the walk has reached. False when there is none.
  [[nodiscard]] bool CentralHeader(ZipCentralHeader* header) const;

  /// Reads the local header of the current entry, without its data. kZipFormatError when there is
  /// none or when the entry extends into the central directory.
  [[nodiscard]] ZipStatus OpenLocalHeader();

  /// Opens the data of the current entry for reading, and reads its local header.
  [[nodiscard]] ZipStatus OpenEntry();

  /// The local header of the open entry; null when none is open. Valid until the entry is closed.
  [[nodiscard]] const ZipHeaderFields* local_header() const;

  /// The entry from its local header to the end of its data. Valid after `OpenLocalHeader`.
  [[nodiscard]] ZipExtent extent() const;

  /// Reads decompressed data. Returns the number of bytes, 0 at the end, or a negative status.
  [[nodiscard]] std::int32_t ReadEntry(void* buffer, std::int32_t size_bytes);

  /// Closes the entry. If the data was read to its end, it is compared with the central record:
  /// kZipCrcError, or kZipDataError when it consists of more or fewer compressed bytes than
  /// declared. (The library compares the CRC only when these are equal.)
  [[nodiscard]] ZipStatus CloseEntry();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// Replaces `*reader` by one that has the archive at `archive_path` (UTF-8) open. `error` may be
/// null.
[[nodiscard]] bool OpenZipReader(std::string_view archive_path, ZipReader* reader,
                                 std::string* error);

}  // namespace zul
