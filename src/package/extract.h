#pragma once

// From a downloaded archive to a complete directory, or no change at all. Entries go to a private
// directory ".qorva-zip-stage.*" beside the destination, and one rename publishes the finished
// tree. A tree that stands at the destination is moved into ".qorva-zip-backup.*/previous" first
// and put back if the publish fails: at each instant a complete tree stands in one of the two
// places. A process that dies half way leaves such a directory behind and never a half-filled
// destination.

#include <string>
#include <string_view>

#include "core/file_layer.h"

namespace zul {

/// Extracts the ZIP at `archive_path` to `destination`. On failure nothing at the destination has
/// changed (unless the text says where the previous tree was preserved) and `error` (may be null)
/// has the reason. `keep_alive` is also called for each entry.
[[nodiscard]] bool ExtractPackage(const fs::Path& archive_path, const fs::Path& destination,
                                  std::string* error, const fs::KeepAlive& keep_alive = {});

}  // namespace zul
