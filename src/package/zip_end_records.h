#pragma once

// The records at the end of an archive, which state where the central directory is. When these
// contradict each other, or when one directory is at the stated offset and another one before the
// end record, ZIP readers choose differently. Such an archive holds different files for different
// readers, so it is refused.

#include <cstdint>

#include "package/zip_stream.h"

namespace zul {

/// A central directory as a walk over its records found it: the bytes [begin, end) of the file.
struct ZipDirectoryWalk {
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::uint64_t entries = 0;
};

/// True when the file ends in an end of central directory record whose comment ends with the file.
[[nodiscard]] bool HasExactZipEndRecord(ZipFileStream& stream);

/// True when the last end record of the file comes directly after the walked directory and states
/// its size, its number of entries and an offset that is not greater than its own. A Zip64 record
/// and its locator may be between the two and must then state the same. Bytes before the archive
/// are allowed: they shift all offsets by the same amount.
[[nodiscard]] bool ZipEndRecordsAgree(ZipFileStream& stream, const ZipDirectoryWalk& walked);

}  // namespace zul
