#pragma once

// Reads the files that people hand to the inspector: missing, empty, huge or of another kind.

#include <cstdint>
#include <string>

namespace zul {

/// Reads the file at `path` (UTF-8) into `*text`. Of a file with more than `max_bytes` it reads the
/// whole lines in its last `max_bytes`. False, with one sentence in `error`, for a file that is
/// missing, a folder, empty or not readable.
[[nodiscard]] bool ReadTextFile(const std::string& path, std::uint64_t max_bytes, std::string* text,
                                std::string* error);

}  // namespace zul
