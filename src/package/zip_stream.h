#pragma once

// The archive file as the archive library reads it: a read-only stream with a fixed size and two
// windows of buffer. Reading a ZIP goes to and fro between the central directory and the entries,
// so a single buffer would be refilled at every turn. The library's own buffered stream has one,
// and it writes past its end when a file grows behind a short read.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "core/file_layer.h"
#include "package/zip_status.h"

namespace zul {

class ZipFileStream {
 public:
  ZipFileStream();
  ~ZipFileStream();
  ZipFileStream(const ZipFileStream&) = delete;
  ZipFileStream& operator=(const ZipFileStream&) = delete;

  /// Opens the file at `path`. What is added to the file later is not seen.
  [[nodiscard]] ZipStatus Open(const fs::Path& path);

  [[nodiscard]] std::int64_t size() const { return size_; }
  [[nodiscard]] std::int64_t position() const { return position_; }

  /// Moves to a position, which may lie past the end; touches nothing on disk.
  [[nodiscard]] ZipStatus Seek(std::int64_t position);

  /// Reads up to `size` bytes and moves on. Less than `size` only at the end; negative is a status.
  [[nodiscard]] std::int32_t Read(void* buffer, std::int32_t size);

  /// As `Read`, but anything less than `size` is kZipEndOfStream.
  [[nodiscard]] ZipStatus ReadExactly(void* buffer, std::int32_t size);

  /// The stream object for the library's calls (a mz_stream). Lives as long as this object.
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
