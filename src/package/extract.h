#pragma once

// Turns a downloaded archive into a complete directory, or changes nothing. Entries are written to
// a private directory ".qorva-zip-stage.*" beside the destination, and one rename publishes the
// finished tree. A previous tree at the destination is first moved to
// ".qorva-zip-backup.*/previous", and moved back if the publish fails: at any time a complete tree
// is in one of the two places. If the process ends in between, one of these directories
// remains, but never a partial destination.

#include <string>
#include <string_view>

#include "core/file_layer.h"
#include "package/zip_scan.h"

namespace zul {

/// Extracts the ZIP at `archive_path` to `destination`. On failure the destination is unchanged,
/// unless the error says where the previous tree was preserved. `error` (may be null) receives the
/// reason and is empty on success. `keep_alive` is called at least once for each entry. Blocks.
[[nodiscard]] bool ExtractPackage(const fs::Path& archive_path, const fs::Path& destination,
                                  std::string* error, const fs::KeepAlive& keep_alive = {});

/// As `ExtractPackage`, to judge a package: all data is read and verified, but only the files that
/// ResolvePayloadLayout and the check of signatures look at are written, and none is made durable.
/// `*scan` receives what the archive holds or, after a failure, the entry that caused it.
[[nodiscard]] bool ExtractPackageToInspect(const fs::Path& archive_path,
                                           const fs::Path& destination, ZipScanResult* scan,
                                           std::string* error);

}  // namespace zul
