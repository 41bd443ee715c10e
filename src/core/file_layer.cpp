#include "core/file_layer.h"

#include "core/system_error.h"

namespace zul::fs {

namespace {

constexpr std::size_t kCopyBufferBytes = std::size_t{1} << 20;

/// As CopyContents; `copied` counts the bytes.
bool CopyCounted(File& from, File& to, std::uint64_t& copied, std::error_code& ec,
                 const KeepAlive& keep_alive) {
  // One for all copies of a thread: small files come by the thousand, and fresh memory would cost
  // more than they do.
  thread_local const auto buffer = std::make_unique_for_overwrite<char[]>(kCopyBufferBytes);
  for (;;) {
    std::size_t read = 0;
    if (!from.Read(buffer.get(), kCopyBufferBytes, &read, ec)) return false;
    if (read == 0) return true;
    if (!WriteAll(to, buffer.get(), read, ec)) return false;
    copied += read;
    if (keep_alive && read == kCopyBufferBytes) keep_alive();
  }
}

/// Flushes and closes a file of so many bytes.
bool Finish(File& file, std::uint64_t size_bytes, std::error_code& ec,
            const KeepAlive& keep_alive) {
  bool flushed = false;
  RunKeepingAlive([&] { flushed = file.Flush(ec); },
                  size_bytes >= kLongFlushBytes ? keep_alive : KeepAlive());
  return flushed && file.Close(ec);
}

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

bool IsRegularFile(const Path& path) {
  std::error_code ec;
  return KindOf(path, Links::kFollow, ec) == EntryKind::kRegular;
}

bool Exists(const Path& path) {
  std::error_code ec;
  const EntryKind kind = KindOf(path, Links::kFollow, ec);
  return kind != EntryKind::kNotFound && kind != EntryKind::kUnknown;
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

bool CopyContents(File& from, File& to, std::error_code& ec, const KeepAlive& keep_alive) {
  std::uint64_t copied = 0;
  return CopyCounted(from, to, copied, ec, keep_alive);
}

bool CreateDirectories(const Path& path, std::error_code& ec) {
  if (KindOf(path, Links::kFollow, ec) == EntryKind::kDirectory) return true;
  CreateResult result = CreateDirectoryOnce(path, ec);
  if (result == CreateResult::kFailed && IsNotFoundError(ec)) {
    // A trailing separator makes the parent the same folder again; one step more passes it.
    const Path parent = path.parent_path();
    if (parent.empty() || parent == path || !CreateDirectories(parent, ec)) return false;
    result = CreateDirectoryOnce(path, ec);
  }
  if (result == CreateResult::kExisted) {
    // Someone else made it meanwhile, or something that is no folder is in the way.
    std::error_code kind_error;
    const EntryKind kind = KindOf(path, Links::kFollow, kind_error);
    if (kind == EntryKind::kUnknown) ec = kind_error;
    if (kind != EntryKind::kDirectory) return false;
    ec.clear();
    return true;
  }
  return result == CreateResult::kCreated;
}

bool CopyFileDurably(const Path& from, const Path& to, std::error_code& ec,
                     const KeepAlive& keep_alive) {
  File source = OpenForRead(from, ec);
  if (ec) return false;
  File target = CreateNewFile(to, NewFileAccess::kWrite, ec);
  if (ec) return false;
  std::uint64_t copied = 0;
  return CopyCounted(source, target, copied, ec, keep_alive) &&
         target.TakeTimeAndAttributes(source, ec) && Finish(target, copied, ec, keep_alive);
}

}  // namespace zul::fs
