#pragma once

// The judgement on one entry of an archive: whether its record in the central directory is one that
// may be extracted, and whether its local header tells the same story.

#include <cstdint>
#include <string>

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
                                      ZipEntryRecord& record, std::string* error);

/// Compares the local header of the open entry with its record, field by field. Where only the
/// local header names the file in Unicode, `record.path` becomes that name. `error` may be null.
[[nodiscard]] bool CheckLocalHeader(const ZipReader& reader, ZipEntryRecord& record,
                                    std::string* error);

}  // namespace zul
