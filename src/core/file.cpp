#include "core/file.h"

#include <memory>

namespace zul::fs {

namespace {

constexpr std::size_t kCopyBufferBytes = std::size_t{256} << 10;
constexpr std::uint64_t kKeepAliveBytes = std::uint64_t{1} << 20;

}  // namespace

File::~File() {
  std::error_code ignored;
  static_cast<void>(Close(ignored));
}

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    std::error_code ignored;
    static_cast<void>(Close(ignored));
    handle_ = std::exchange(other.handle_, kNoHandle);
  }
  return *this;
}

bool ReadUpTo(File& file, std::uint64_t offset_bytes, void* buffer, std::size_t size,
              std::size_t* read, std::error_code& ec) {
  ec.clear();
  *read = 0;
  while (*read < size) {
    std::size_t piece = 0;
    if (!file.ReadAt(offset_bytes + *read, static_cast<char*>(buffer) + *read, size - *read, &piece,
                     ec)) {
      return false;
    }
    if (piece == 0) return true;
    *read += piece;
  }
  return true;
}

bool WriteAll(File& file, const void* data, std::size_t size, std::error_code& ec) {
  ec.clear();
  const char* rest = static_cast<const char*>(data);
  while (size > 0) {
    std::size_t written = 0;
    if (!file.WriteSome(rest, size, &written, ec) || written == 0) return false;
    rest += written;
    size -= written;
  }
  return true;
}

bool CopyContents(File& from, File& to, std::uint64_t* copied_bytes, std::error_code& ec,
                  const KeepAlive& keep_alive) {
  // One buffer for all copies of a thread: an update copies thousands of small files, and fresh
  // memory would cost more than their contents.
  thread_local const auto buffer = std::make_unique_for_overwrite<char[]>(kCopyBufferBytes);
  *copied_bytes = 0;
  for (;;) {
    std::size_t read = 0;
    if (!from.Read(buffer.get(), kCopyBufferBytes, &read, ec)) return false;
    if (read == 0) return true;
    if (!WriteAll(to, buffer.get(), read, ec)) return false;
    const std::uint64_t before = *copied_bytes;
    *copied_bytes += read;
    if (keep_alive && *copied_bytes / kKeepAliveBytes != before / kKeepAliveBytes) keep_alive();
  }
}

}  // namespace zul::fs
