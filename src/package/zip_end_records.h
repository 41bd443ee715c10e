#pragma once

// The records at the end of an archive, which say where its central directory is. Readers differ in
// what they believe when these contradict each other, or when a directory stands at the stated
// place and another one before the end record. Such an archive holds different files for different
// readers.

#include <cstdint>

#include "package/zip_stream.h"

namespace zul {

/// A central directory as a walk over its records found it, [begin, end) in the file.
struct ZipDirectoryWalk {
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::uint64_t entries = 0;
};

/// True when the file ends in an end of central directory record whose comment ends with the file.
[[nodiscard]] bool HasExactZipEndRecord(ZipFileStream& stream);

/// True when the end record, the last of the file, follows the walked directory and states its
/// size, its number of entries and a place that does not lie behind it. Between the two may stand
/// the Zip64 record and its locator, which then state the same. Bytes in front of the archive may
/// shift all places alike.
[[nodiscard]] bool ZipEndRecordsAgree(ZipFileStream& stream, const ZipDirectoryWalk& walked);

}  // namespace zul
