#include "core/file_layer.h"

#include "core/system_error.h"

namespace zul::fs {

namespace {

/// Flushes and closes a file of `size_bytes` bytes.
bool Finish(File& file, std::uint64_t size_bytes, std::error_code& ec,
            const KeepAlive& keep_alive) {
  bool flushed = false;
  RunKeepingAlive([&] { flushed = file.Flush(ec); },
                  size_bytes >= kLongFlushBytes ? keep_alive : KeepAlive());
  return flushed && file.Close(ec);
}

}  // namespace

bool IsRegularFile(const Path& path) {
  std::error_code ec;
  return KindOf(path, Links::kFollow, ec) == EntryKind::kRegular;
}

bool Exists(const Path& path) {
  std::error_code ec;
  const EntryKind kind = KindOf(path, Links::kFollow, ec);
  return kind != EntryKind::kNotFound && kind != EntryKind::kUnknown;
}

bool CreateDirectories(const Path& path, std::error_code& ec) {
  if (KindOf(path, Links::kFollow, ec) == EntryKind::kDirectory) return true;
  CreateResult result = CreateDirectoryOnce(path, ec);
  if (result == CreateResult::kFailed && IsNotFoundError(ec)) {
    // The parent of "a/b/" is "a/b": the recursion creates it, and the second call finds it.
    const Path parent = path.parent_path();
    if (parent.empty() || parent == path || !CreateDirectories(parent, ec)) return false;
    result = CreateDirectoryOnce(path, ec);
  }
  if (result == CreateResult::kExisted) {
    // Another process has just created the folder, or an entry of another kind has that name.
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
  std::uint64_t copied_bytes = 0;
  return CopyContents(source, target, &copied_bytes, ec, keep_alive) &&
         target.TakeTimeAndAttributes(source, ec) && Finish(target, copied_bytes, ec, keep_alive);
}

}  // namespace zul::fs
