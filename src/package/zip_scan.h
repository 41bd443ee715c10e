#pragma once

// Checks a whole archive before any of its data is extracted. Extraction uses only the records that
// a scan has accepted. A scan reads headers only.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "package/zip_reader.h"

namespace zul {

/// One entry as its central directory record describes it.
struct ZipEntryRecord {
  std::string path;                 ///< relative, UTF-8, `/` separators, none at the end
  std::string raw_name;             ///< the name field exactly as the central directory has it
  bool unicode_path_used = false;   ///< `path` is from a Unicode path extra field
  std::uint64_t central_index = 0;  ///< position in the central directory, from 0
  std::uint16_t flags = 0;
  std::uint16_t compression_method = 0;  ///< 0 stored or 8 deflated
  std::uint32_t crc32 = 0;
  std::uint32_t disk_number = 0;
  std::int64_t compressed_size = 0;
  std::int64_t uncompressed_size = 0;
  std::int64_t local_header_offset = 0;
  bool is_directory = false;
  bool is_link = false;  ///< a symbolic link of Unix; extracted as a file that holds its target
};

/// Reads the central record that `reader` has reached, number `index`, into `*record`. False when
/// it may not be extracted: another disk, encryption, another method than stored or deflated, an
/// unsafe name. `error` may be null.
[[nodiscard]] bool ReadZipEntryRecord(const ZipReader& reader, std::uint64_t index,
                                      ZipEntryRecord* record, std::string* error);

/// True when the local header of the open entry agrees with `*record` in every field. When only the
/// local header has a Unicode path, `record->path` becomes that path. `error` may be null.
[[nodiscard]] bool CheckLocalHeader(const ZipReader& reader, ZipEntryRecord* record,
                                    std::string* error);

/// The entry at which a scan or an extraction has ended, for people who look for the cause.
struct ZipRefusedEntry {
  std::uint64_t central_index = 0;       ///< position in the central directory, from 0
  std::string name;                      ///< decoded, UTF-8; never to be used as a path
  std::int64_t local_header_offset = 0;  ///< as the central directory states it, in bytes
};

/// What `record` is refused as.
[[nodiscard]] ZipRefusedEntry RefusedEntry(const ZipEntryRecord& record);

struct ZipScanResult {
  std::vector<ZipEntryRecord> entries;         ///< the files to extract, in central directory order
  std::uint64_t central_entry_count = 0;       ///< what the archive declares
  std::uint64_t total_uncompressed_bytes = 0;  ///< the sum over `entries`
  std::vector<std::string> skipped_paths;      ///< files that macOS adds; they are not extracted
  std::optional<ZipRefusedEntry> refused;      ///< after a failure that one entry has caused
};

/// Checks the archive at `archive_path` (UTF-8): its end records, every central record against its
/// local header, and all names together. Drops the files that macOS adds. Refuses an archive with
/// entries that overlap, with a name that could leave the extraction root, or with names that
/// collide on a case-insensitive file system. After a failure only `result->refused` is valid.
/// `error` may be null.
[[nodiscard]] bool ScanZipArchive(std::string_view archive_path, ZipScanResult* result,
                                  std::string* error);

/// False when two paths are equal without regard to ASCII case, when one directory is spelled in
/// two ways, or when a file is also the parent of an entry. `error` may be null. `at` (may be null)
/// receives the position in `entries` of one of the entries that collide.
[[nodiscard]] bool CheckZipPathCollisions(const std::vector<ZipEntryRecord>& entries,
                                          std::string* error, std::size_t* at = nullptr);

}  // namespace zul
