#pragma once

// The SHA-256 of a file.

#include <cstdint>
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

/// What identifies the content of a file.
struct FileDigest {
  std::string sha256;  ///< as from ComputeFileSha256
  std::uint64_t size_bytes = 0;

  bool operator==(const FileDigest&) const = default;
};

/// As ComputeFileSha256, but false also when the file cannot be read to its end. So two equal
/// digests prove two equal files.
[[nodiscard]] bool ReadFileDigest(const fs::Path& path, FileDigest* digest, std::string* error,
                                  const fs::KeepAlive& keep_alive = {});

}  // namespace zul
