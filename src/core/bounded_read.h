#pragma once

// Reading a small file whole, with a hard limit on its size, telling an absent file apart from a
// path that is unsafe or broken.

#include <cstdint>
#include <string>
#include <string_view>

namespace zul {

/// The numbers are part of the contract; 3 is not used.
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

/// Reads the file at `path` (UTF-8) into `output`, which holds the content only on kBoundedReadOk.
/// A file of more than `cap_bytes` is refused before memory is taken for it, and also when it grows
/// past the cap while it is read; a cap of 0 means no limit. A file that shrinks meanwhile gives
/// what was left. Throws nothing.
[[nodiscard]] BoundedReadResult ReadBounded(std::string_view path, std::uint64_t cap_bytes,
                                            std::string& output);

}  // namespace zul
