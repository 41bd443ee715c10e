#pragma once

// The second pass over an archive that a scan has accepted. The archive may have changed since, so
// each entry is read again and must equal the record of the scan. Another process may change the
// folders meanwhile, so those in use are held open, and files are created relative to them.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "core/file_layer.h"
#include "core/ordered_work.h"
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

  /// A file that was written completely.
  struct Finished {
    const ZipEntryRecord* record = nullptr;
    std::string error;  ///< why it is not durable; empty when it is
  };

  /// `keep_alive` is called for each piece of an entry's data and while files are waited for; it
  /// may be empty.
  explicit ExtractionPass(fs::KeepAlive keep_alive = {}, ExtractionScope scope = {});

  const fs::KeepAlive keep_alive;
  const ExtractionScope scope;
  /// Directories that this pass created, relative to the stage, UTF-8, `/` separators.
  std::unordered_set<std::string> created_dirs;
  // From the first entry on: the stage and its resolved path.
  fs::File stage;
  fs::Path root;
  // The folder of the last file and its path, once there is one.
  fs::File folder;
  fs::Path folder_path;
  std::unique_ptr<std::byte[]> buffer = std::make_unique<std::byte[]>(kBufferBytes);
  /// The flushes and closes of the files, in the order of the archive.
  OrderedWork<Finished> finishing;
  std::optional<Finished> failed;  ///< the first file that is not durable
};

/// Extracts the entries of `*scan` from the archive at `archive_path` (UTF-8) into `stage_dir`.
/// After a failure the files that were complete remain in the stage, and `scan->refused` is the
/// entry that caused it, if one did. `error` may be null.
[[nodiscard]] bool ExtractScannedEntries(std::string_view archive_path, ZipScanResult* scan,
                                         const fs::Path& stage_dir, std::string* error,
                                         fs::KeepAlive keep_alive = {}, ExtractionScope scope = {});

/// Extracts the entry that `reader` has reached and that equals `record`, which must outlive the
/// pass. Removes a file that is incomplete or whose data is not as declared. The file is flushed
/// and closed after the return, as the last piece of `pass.finishing`, which must not be full.
/// `error` may be null.
[[nodiscard]] bool ExtractOneEntry(ZipReader& reader, const ZipEntryRecord& record,
                                   const fs::Path& stage_dir, ExtractionPass& pass,
                                   std::string* error);

}  // namespace zul
