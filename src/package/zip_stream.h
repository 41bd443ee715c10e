#pragma once

// The archive file as a stream of the archive library: read-only, of fixed size, over
// core/file_layer.h, with two buffered windows. Reading a ZIP alternates between the central
// directory and the entries, so a single buffer would be refilled at each step. The library's own
// file streams are not used: they open the file without the long-path prefix, and the buffered one
// has a single buffer and writes past its end when the file grows after a short read.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "core/file_layer.h"
#include "package/zip_status.h"

namespace zul {

/// One open archive file. Not for use by two threads at once.
class ZipFileStream {
 public:
  ZipFileStream();
  ~ZipFileStream();
  ZipFileStream(const ZipFileStream&) = delete;
  ZipFileStream& operator=(const ZipFileStream&) = delete;

  /// Opens the file at `path` and fixes the size: bytes added to the file later are not read.
  /// kZipOpenError when it cannot be opened or is not a disk file.
  [[nodiscard]] ZipStatus Open(const fs::Path& path);

  /// In bytes, as it was when the file was opened.
  [[nodiscard]] std::int64_t size() const { return size_; }
  /// The offset in bytes of the next read.
  [[nodiscard]] std::int64_t position() const { return position_; }

  /// Sets the position, which may be past the end. kZipSeekError when it is negative. No disk
  /// access.
  [[nodiscard]] ZipStatus Seek(std::int64_t position);

  /// Reads up to `size` bytes and advances the position. Returns the number of bytes read, less
  /// than `size` only at the end of the file, or a negative status.
  [[nodiscard]] std::int32_t Read(void* buffer, std::int32_t size);

  /// As `Read`; kZipEndOfStream when fewer than `size` bytes are left.
  [[nodiscard]] ZipStatus ReadExactly(void* buffer, std::int32_t size);

  /// The mz_stream for the library's calls. Owned by this object.
  [[nodiscard]] void* library_stream();

 private:
  struct LibraryStream;
  static constexpr std::int32_t kWindowBytes = 16384;

  struct Window {
    std::int64_t start = 0;
    std::int32_t length = 0;
    std::uint64_t last_use = 0;
    std::array<char, kWindowBytes> bytes;
  };

  [[nodiscard]] const Window* WindowAtPosition(ZipStatus* status);
  [[nodiscard]] std::int32_t ReadFile(std::int64_t at, void* buffer, std::int32_t size);

  std::unique_ptr<LibraryStream> library_stream_;
  fs::File file_;
  std::int64_t size_ = 0;
  std::int64_t position_ = 0;
  std::uint64_t uses_ = 0;
  std::array<Window, 2> windows_;
};

}  // namespace zul
