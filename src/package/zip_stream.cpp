#include "package/zip_stream.h"

#include <algorithm>
#include <cstring>

// minizip-ng's headers use these without including them.
#include <mz.h>
#include <mz_strm.h>
#include <stdint.h>
#include <time.h>

namespace zul {

// The functions that the library calls. As in every stream of the library, the first member is a
// mz_stream.
struct ZipFileStream::LibraryStream {
  mz_stream stream;
  ZipFileStream* owner;

  static ZipFileStream& Owner(void* stream) { return *static_cast<LibraryStream*>(stream)->owner; }

  static int32_t IsOpen(void* stream) {
    return Owner(stream).file_.is_open() ? MZ_OK : MZ_OPEN_ERROR;
  }
  static int32_t Read(void* stream, void* buffer, int32_t size) {
    return Owner(stream).Read(buffer, size);
  }
  static int64_t Tell(void* stream) { return Owner(stream).position(); }
  static int32_t Seek(void* stream, int64_t offset, int32_t origin) {
    ZipFileStream& owner = Owner(stream);
    const int64_t base = origin == MZ_SEEK_SET   ? 0
                         : origin == MZ_SEEK_CUR ? owner.position()
                                                 : owner.size();
    if (offset > INT64_MAX - base) return MZ_SEEK_ERROR;
    return owner.Seek(base + offset);
  }
  static int32_t Error(void*) { return MZ_OK; }

  static inline mz_stream_vtbl vtbl = {nullptr, IsOpen, Read,    nullptr, Tell,    Seek,
                                       nullptr, Error,  nullptr, nullptr, nullptr, nullptr};
};

ZipFileStream::ZipFileStream()
    : library_stream_(new LibraryStream{{&LibraryStream::vtbl, nullptr}, this}) {}

ZipFileStream::~ZipFileStream() = default;

void* ZipFileStream::library_stream() {
  return library_stream_.get();
}

ZipStatus ZipFileStream::Open(const fs::Path& path) {
  std::error_code ec;
  fs::File file = fs::OpenForRead(path, ec);
  fs::FileFacts facts;
  std::uint64_t size_bytes = 0;
  if (!file.is_open() || !file.Facts(&facts, ec) || !facts.is_disk_file || facts.is_directory ||
      !file.Size(&size_bytes, ec)) {
    return kZipOpenError;
  }
  file_ = std::move(file);
  size_ = static_cast<std::int64_t>(size_bytes);
  return kZipOk;
}

ZipStatus ZipFileStream::Seek(std::int64_t position) {
  if (position < 0) return kZipSeekError;
  position_ = position;
  return kZipOk;
}

std::int32_t ZipFileStream::Read(void* buffer, std::int32_t size) {
  if (size <= 0 || position_ >= size_) return 0;
  const auto wanted = static_cast<std::int32_t>(std::min<std::int64_t>(size, size_ - position_));
  std::int32_t done = 0;
  while (done < wanted) {
    char* const target = static_cast<char*>(buffer) + done;
    const std::int32_t left = wanted - done;
    std::int32_t count = 0;
    if (left >= kWindowBytes) {
      count = ReadFile(position_, target, left);
      if (count < 0) return count;
    } else {
      ZipStatus status = kZipOk;
      const Window* window = WindowAtPosition(&status);
      if (!window) return status;
      const auto offset = static_cast<std::int32_t>(position_ - window->start);
      count = std::min(left, window->length - offset);
      if (count > 0)
        std::memcpy(target, window->bytes.data() + offset, static_cast<std::size_t>(count));
    }
    if (count <= 0) break;  // the file became shorter
    done += count;
    position_ += count;
  }
  return done;
}

ZipStatus ZipFileStream::ReadExactly(void* buffer, std::int32_t size) {
  const std::int32_t read = Read(buffer, size);
  if (read < 0) return read;
  return read == size ? kZipOk : kZipEndOfStream;
}

// The window that holds the current position; fills the least recently used one if necessary.
// Windows start at multiples of their size, so that the search for the end record, which reads
// backwards, finds its next piece in the same window.
const ZipFileStream::Window* ZipFileStream::WindowAtPosition(ZipStatus* status) {
  const std::int64_t start = position_ - position_ % kWindowBytes;
  Window* oldest = &windows_[0];
  for (Window& window : windows_) {
    if (window.length > 0 && window.start == start) {
      window.last_use = ++uses_;
      return &window;
    }
    if (window.last_use < oldest->last_use) oldest = &window;
  }
  const std::int32_t read = ReadFile(start, oldest->bytes.data(), kWindowBytes);
  oldest->length = std::max(read, 0);
  if (read < 0) {
    *status = read;
    return nullptr;
  }
  oldest->start = start;
  oldest->last_use = ++uses_;
  return oldest;
}

// Reads from the file, at most up to its size at the open.
std::int32_t ZipFileStream::ReadFile(std::int64_t at, void* buffer, std::int32_t size) {
  const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(size, size_ - at));
  std::size_t read = 0;
  std::error_code ec;
  if (!file_.ReadAt(static_cast<std::uint64_t>(at), buffer, wanted, &read, ec))
    return kZipReadError;
  return static_cast<std::int32_t>(read);
}

}  // namespace zul
