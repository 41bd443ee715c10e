#pragma once

// Judging a whole archive before a byte of it is extracted. Extraction works only from the records
// that a scan has accepted. Only headers are read.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "package/zip_reader.h"

namespace zul {

/// One entry as its central directory record describes it.
struct ZipEntryRecord {
  std::string path;                 ///< relative, UTF-8, `/` separators, none at the end
  std::string raw_name;             ///< the name field exactly as the central directory has it
  bool unicode_path_used = false;   ///< `path` came from a Unicode path extra field
  std::uint64_t central_index = 0;  ///< position in the central directory
  std::uint16_t flags = 0;
  std::uint16_t compression_method = 0;  ///< 0 stored or 8 deflated
  std::uint32_t crc32 = 0;
  std::uint32_t disk_number = 0;
  std::int64_t compressed_size = 0;
  std::int64_t uncompressed_size = 0;
  std::int64_t local_header_offset = 0;
  bool is_directory = false;
};

/// Reads and judges the entry that `reader` has reached, the `index`-th. `error` may be null.
[[nodiscard]] bool ReadZipEntryRecord(const ZipReader& reader, std::uint64_t index,
                                      ZipEntryRecord* record, std::string* error);

/// Compares the local header of the open entry with its record, field by field. Where only the
/// local header names the file in Unicode, `record.path` becomes that name. `error` may be null.
[[nodiscard]] bool CheckLocalHeader(const ZipReader& reader, ZipEntryRecord* record,
                                    std::string* error);

struct ZipScanResult {
  std::vector<ZipEntryRecord> entries;         ///< the files to extract, in central directory order
  std::uint64_t central_entry_count = 0;       ///< what the archive declares
  std::uint64_t total_uncompressed_bytes = 0;  ///< over `entries`
};

/// Walks the archive at `archive_path` (UTF-8) and checks every entry against its local header.
/// Clutter of operating systems is dropped; a name that could land outside the extraction root or
/// collide on a case-insensitive file system refuses the archive. After a failure `result.entries`
/// is not to be used. `error` may be null.
[[nodiscard]] bool ScanZipArchive(std::string_view archive_path, ZipScanResult* result,
                                  std::string* error);

/// Refuses paths that fold (A to Z only) to the same path, directories spelled in two ways, and
/// files that would have to be directories too. `error` may be null.
[[nodiscard]] bool CheckZipPathCollisions(const std::vector<ZipEntryRecord>& entries,
                                          std::string* error);

}  // namespace zul
