#pragma once

// The SHA-256 of a file.

#include <string>

#include "core/file.h"

namespace zul {

/// Computes the SHA-256 of the file at `path` into `*hex`: 64 lower-case digits, first byte first.
/// A read error counts as the end of the file; the comparison of the caller then fails. On false
/// `*hex` is empty and `*error` (may be null) has the reason. Blocks until the file has been read.
[[nodiscard]] bool ComputeFileSha256(const fs::Path& path, std::string* hex, std::string* error,
                                     const fs::KeepAlive& keep_alive = {});

/// The same for an open file, from its current position to its end.
[[nodiscard]] bool ComputeFileSha256(fs::File& file, std::string* hex, std::string* error,
                                     const fs::KeepAlive& keep_alive = {});

}  // namespace zul
