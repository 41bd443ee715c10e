#pragma once

// Judging a whole archive before a byte of it is extracted. Extraction works only from the records
// that a scan has accepted. Only headers are read.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "package/zip_entry.h"

namespace zul {

struct ZipScanResult {
  std::vector<ZipEntryRecord> entries;         ///< the files to extract, in central directory order
  std::uint64_t central_entry_count = 0;       ///< what the archive declares
  std::uint64_t total_uncompressed_bytes = 0;  ///< over `entries`
};

/// Walks the archive at `archive_path` (UTF-8) and checks every entry against its local header.
/// Clutter of operating systems is dropped; a name that could land outside the extraction root or
/// collide on a case-insensitive file system refuses the archive. After a failure `result.entries`
/// is not to be used. `error` may be null.
[[nodiscard]] bool ScanZipArchive(std::string_view archive_path, ZipScanResult& result,
                                  std::string* error);

/// Refuses paths that fold (A to Z only) to the same path, directories spelled in two ways, and
/// files that would have to be directories too. `error` may be null.
[[nodiscard]] bool CheckZipPathCollisions(const std::vector<ZipEntryRecord>& entries,
                                          std::string* error);

}  // namespace zul
