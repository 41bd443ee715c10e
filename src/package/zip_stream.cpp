#include "package/zip_stream.h"

#include <algorithm>
#include <cstring>

// minizip-ng's headers use these without including them.
#include <mz.h>
#include <mz_strm.h>
#include <mz_strm_os.h>
#include <stdint.h>
#include <time.h>

namespace zul {

// What the library calls. Its first member is the library's own record, as its streams are laid
// out.
struct ZipFileStream::LibraryStream {
  mz_stream stream;
  ZipFileStream* owner;

  static ZipFileStream& Owner(void* stream) { return *static_cast<LibraryStream*>(stream)->owner; }

  static int32_t IsOpen(void* stream) { return Owner(stream).file_ ? MZ_OK : MZ_OPEN_ERROR; }
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

ZipFileStream::~ZipFileStream() {
  if (!file_) return;
  mz_stream_os_close(file_);
  mz_stream_os_delete(&file_);
}

void* ZipFileStream::library_stream() {
  return library_stream_.get();
}

ZipStatus ZipFileStream::Open(const std::string& utf8_path) {
  void* file = mz_stream_os_create();
  if (!file) return kZipMemoryError;
  ZipStatus status = mz_stream_os_open(file, utf8_path.c_str(), MZ_OPEN_MODE_READ);
  if (status == kZipOk) status = mz_stream_os_seek(file, 0, MZ_SEEK_END);
  const int64_t size = status == kZipOk ? mz_stream_os_tell(file) : 0;
  if (status != kZipOk || size < 0) {
    mz_stream_os_close(file);
    mz_stream_os_delete(&file);
    return kZipOpenError;
  }
  file_ = file;
  size_ = file_position_ = size;
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
      const Window* window = WindowAtPosition(status);
      if (!window) return status;
      const auto offset = static_cast<std::int32_t>(position_ - window->start);
      count = std::min(left, window->length - offset);
      if (count > 0)
        std::memcpy(target, window->bytes.data() + offset, static_cast<std::size_t>(count));
    }
    if (count <= 0) break;  // the file has become shorter
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

// The window that holds the current position, filled over the one that was idle longer. Windows
// start at multiples of their size, so that the search for the end record, which goes backwards,
// finds its next piece in the same one.
const ZipFileStream::Window* ZipFileStream::WindowAtPosition(ZipStatus& status) {
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
    status = read;
    return nullptr;
  }
  oldest->start = start;
  oldest->last_use = ++uses_;
  return oldest;
}

// Reads from the file itself, as far as it was long at the start.
std::int32_t ZipFileStream::ReadFile(std::int64_t at, void* buffer, std::int32_t size) {
  if (file_position_ != at && mz_stream_os_seek(file_, at, MZ_SEEK_SET) != MZ_OK) {
    file_position_ = -1;
    return kZipSeekError;
  }
  const auto wanted = static_cast<std::int32_t>(std::min<std::int64_t>(size, size_ - at));
  const std::int32_t read = mz_stream_os_read(file_, buffer, wanted);
  file_position_ = read < 0 ? -1 : at + read;
  // On Windows a failed read comes back as 0 bytes with an error beside it.
  if (read < 0 || (read == 0 && mz_stream_os_error(file_) != 0)) return kZipReadError;
  return read;
}

}  // namespace zul
