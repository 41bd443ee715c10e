#pragma once

// The second pass over an archive that a scan has accepted. The archive may have changed since, so
// each entry is read again and must equal the record of the scan. The folders may have changed too,
// so each path is resolved again when it is used.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>

#include "core/file_layer.h"
#include "package/zip_scan.h"

namespace zul {

/// What an extraction leaves on the disk.
struct ExtractionScope {
  /// True for the path of an entry that is written; empty for all. The others are read and
  /// verified.
  std::function<bool(std::string_view path)> is_written;
  bool flush = true;  ///< each file is made durable before it is closed
};

/// The state of one pass.
struct ExtractionPass {
  static constexpr std::size_t kBufferBytes = 1048576;

  /// Directories that this pass created, relative to the stage, UTF-8, `/` separators.
  std::unordered_set<std::string> created_dirs;
  /// The open stage folder, from the first entry on.
  fs::File stage;
  std::unique_ptr<std::byte[]> buffer = std::make_unique<std::byte[]>(kBufferBytes);
  /// Called for each piece of an entry's data and while a large entry is flushed.
  fs::KeepAlive keep_alive;
  ExtractionScope scope;
};

/// Extracts the entries of `*scan` from the archive at `archive_path` (UTF-8) into `stage_dir`.
/// After a failure the files that were complete remain in the stage, and `scan->refused` is the
/// entry that caused it, if one did. `error` may be null.
[[nodiscard]] bool ExtractScannedEntries(std::string_view archive_path, ZipScanResult* scan,
                                         const fs::Path& stage_dir, std::string* error,
                                         fs::KeepAlive keep_alive = {}, ExtractionScope scope = {});

/// Extracts the entry that `reader` has reached and that equals `record`. Removes a file that is
/// incomplete or whose data is not as declared. `error` may be null.
[[nodiscard]] bool ExtractOneEntry(ZipReader& reader, const ZipEntryRecord& record,
                                   const fs::Path& stage_dir, ExtractionPass& pass,
                                   std::string* error);

}  // namespace zul
