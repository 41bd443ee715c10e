#pragma once

// What the headers of a program or library say: which build it is, and whether it has an embedded
// signature ("PE Format" in the platform's documentation).

#include <cstdint>
#include <string>

#include "core/path.h"

namespace zul {

struct BinaryIdentity {
  std::uint64_t image_base = 0;  ///< the preferred address, which addresses in symbols include
  std::uint64_t image_size = 0;
  std::uint32_t image_timestamp = 0;
  std::string pdb_guid;  ///< 32 lower-case hexadecimal digits; empty without a build id
  std::uint32_t pdb_age = 0;
  bool has_signature = false;  ///< a certificate table inside the file; says nothing about trust
};

/// Reads the headers of the file at `path`. False when they are not those of a 32-bit or 64-bit
/// program or library. The file may be damaged or hostile.
[[nodiscard]] bool ReadBinaryIdentity(const fs::Path& path, BinaryIdentity* identity);

}  // namespace zul
