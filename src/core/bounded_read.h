#pragma once

// Reads a small file completely, with a limit on its size, and distinguishes an absent file from an
// unsafe or broken path.

#include <cstdint>
#include <string>
#include <string_view>

namespace zul {

/// Callers test the numbers, so these must not change. 3 is not used.
enum BoundedReadStatus : std::uint32_t {
  kBoundedReadOk = 0,
  kBoundedReadAbsent = 1,
  kBoundedReadTooLarge = 2,
  kBoundedReadFailed = 4,
};

struct BoundedReadResult {
  BoundedReadStatus status = kBoundedReadFailed;
  std::string message;  ///< UTF-8; empty for kBoundedReadOk and kBoundedReadAbsent
};

/// Reads the file at `path` (UTF-8) into `*output`, which is empty unless the status is
/// kBoundedReadOk. A file of more than `cap_bytes` is refused before memory is allocated for it,
/// and also when it grows past the cap during the read. A cap of 0 means no limit. A file that
/// shrinks during the read gives its remaining content. Throws nothing.
[[nodiscard]] BoundedReadResult ReadBounded(std::string_view path, std::uint64_t cap_bytes,
                                            std::string* output);

}  // namespace zul
