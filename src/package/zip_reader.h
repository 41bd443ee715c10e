#pragma once

// One pass over an archive: its central directory entry by entry, each entry's local header, and
// the data of those that are wanted. The container is read by minizip-ng; what the library leaves
// unchecked is checked here.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "package/zip_status.h"

namespace zul {

/// What a central directory record and a local header both say of an entry, 64-bit sizes resolved.
/// The views are borrowed from the reader.
struct ZipHeaderFields {
  std::uint16_t flags = 0;  ///< general purpose bit flag
  std::uint16_t compression_method = 0;
  std::uint32_t crc32 = 0;
  std::int64_t compressed_size = 0;
  std::int64_t uncompressed_size = 0;
  std::string_view name;  ///< as it stands in the file, NUL bytes included
  std::string_view extra;
};

/// A record of the central directory. Borrowed as above, until the reader moves on.
struct ZipCentralHeader : ZipHeaderFields {
  std::uint16_t aes_version = 0;
  std::uint32_t disk_number = 0;
  std::int64_t local_header_offset = 0;
};

/// A range of the file, [begin, end).
struct ZipExtent {
  std::int64_t begin = 0;
  std::int64_t end = 0;
};

/// Owns the open file and the library's archive handle. Its states: closed; open; at an entry of
/// the central directory; in that entry, with its local header or with its data open. For one
/// thread.
class ZipReader {
 public:
  ZipReader();
  ~ZipReader();
  ZipReader(ZipReader&&) noexcept;
  ZipReader& operator=(ZipReader&&) noexcept;

  /// Opens the archive. A damaged central directory is refused, never rebuilt. Call it once.
  [[nodiscard]] ZipStatus Open(std::string_view utf8_path);
  [[nodiscard]] bool is_open() const;

  /// True when the file, open or refused, ends in an end of central directory record.
  [[nodiscard]] bool HasZipEndRecord();

  [[nodiscard]] std::int64_t file_size() const;
  [[nodiscard]] ZipStatus DeclaredEntryCount(std::uint64_t* count) const;
  [[nodiscard]] ZipStatus DiskWithCentralDirectory(std::uint32_t* disk_number) const;

  /// Walk the central directory. kZipEndOfList behind its last entry; kZipFormatError there when
  /// the records at the end of the archive tell of another directory.
  [[nodiscard]] ZipStatus GoToFirstEntry();
  [[nodiscard]] ZipStatus GoToNextEntry();

  /// The entry that the walk has reached; nothing (false) when it has reached none.
  [[nodiscard]] bool CentralHeader(ZipCentralHeader* header) const;

  /// Reads the current entry's local header and nothing else: no decompressor is set up.
  /// kZipFormatError when there is none or when the entry reaches into the central directory.
  [[nodiscard]] ZipStatus OpenLocalHeader();

  /// Opens the current entry's data for reading; the local header is read as well.
  [[nodiscard]] ZipStatus OpenEntry();

  /// What the last open read; null when no entry is open. Valid until the entry is closed.
  [[nodiscard]] const ZipHeaderFields* local_header() const;

  /// Where the entry lies, from its local header to the end of its data. After `OpenLocalHeader`.
  [[nodiscard]] ZipExtent extent() const;

  /// Reads decompressed data: the number of bytes, 0 at the end, or a negative status.
  [[nodiscard]] std::int32_t ReadEntry(void* buffer, std::int32_t size_bytes);

  /// Ends what an open began. For data that was read to its end the status also says whether it is
  /// what the directory declares: kZipCrcError, or kZipDataError when it took more or less
  /// compressed bytes than declared (the library compares the CRC only where these agree).
  [[nodiscard]] ZipStatus CloseEntry();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// Opens the archive at `archive_path` (UTF-8) in `reader`. `error` may be null.
[[nodiscard]] bool OpenZipReader(std::string_view archive_path, ZipReader* reader,
                                 std::string* error);

}  // namespace zul
