#pragma once

// One open file: reading, writing, flushing, and its current path. The part of the file layer that
// works on handles; core/file_layer.h has the part that works on paths, and the rules for both.

#include <cstddef>
#include <cstdint>
#include <system_error>
#include <utility>

#include "core/keep_alive.h"
#include "core/path.h"

namespace zul::fs {

/// Called between the pieces of a long operation: about once per MiB by an operation on one file
/// and while a large file is flushed, after each entry by an operation on a tree. A small file is
/// finished without a call.
using zul::KeepAlive;

/// The flush of a file of at least this size may take longer than a window may fail to respond.
inline constexpr std::uint64_t kLongFlushBytes = std::uint64_t{1} << 20;

/// What an open file is.
struct FileFacts {
  bool is_disk_file = false;  ///< a file or folder, not a device, pipe or console
  bool is_directory = false;
};

/// One open file or folder. The destructor closes it and ignores a failure; call `Close` to see
/// the failure. Used by one thread at a time.
class File {
 public:
  /// A HANDLE on Windows, a file descriptor on other systems.
  using NativeHandle = std::intptr_t;
  static constexpr NativeHandle kNoHandle = -1;

  File() = default;
  /// Takes ownership of an open handle.
  explicit File(NativeHandle handle) : handle_(handle) {}
  ~File();
  File(File&& other) noexcept : handle_(std::exchange(other.handle_, kNoHandle)) {}
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  [[nodiscard]] bool is_open() const { return handle_ != kNoHandle; }

  /// Reads at most `size` bytes from the current position; `*read` is 0 at the end of the file.
  /// False on an error.
  [[nodiscard]] bool Read(void* buffer, std::size_t size, std::size_t* read, std::error_code& ec);

  /// As `Read`, from `offset_bytes` on. The current position is undefined afterwards.
  [[nodiscard]] bool ReadAt(std::uint64_t offset_bytes, void* buffer, std::size_t size,
                            std::size_t* read, std::error_code& ec);

  /// Writes with one system call, which may write less than `size`; `*written` is the number of
  /// bytes that it wrote. False on an error.
  [[nodiscard]] bool WriteSome(const void* data, std::size_t size, std::size_t* written,
                               std::error_code& ec);

  /// Makes what was written durable (FlushFileBuffers, fsync). Blocks until the device has it.
  [[nodiscard]] bool Flush(std::error_code& ec);

  /// Closes the file. A file whose close failed counts as closed, so that no handle is closed
  /// twice. Succeeds for a file that is not open.
  [[nodiscard]] bool Close(std::error_code& ec);

  /// The kind of the open file. False on an error.
  [[nodiscard]] bool Facts(FileFacts* facts, std::error_code& ec) const;

  /// The size of the open file. False on an error.
  [[nodiscard]] bool Size(std::uint64_t* size_bytes, std::error_code& ec) const;

  /// The current path of the open file or folder, with every link resolved. It comes from the
  /// handle, so it is right even when another entry has taken the path that was opened. Opens
  /// nothing. Empty exactly when there is an error.
  [[nodiscard]] Path Whereabouts(std::error_code& ec) const;

  /// Copies the last-write time of `source` to this file, and its attributes (on Windows) or its
  /// permission bits (on other systems).
  [[nodiscard]] bool TakeTimeAndAttributes(const File& source, std::error_code& ec);

  /// For the file layer itself.
  [[nodiscard]] NativeHandle native() const { return handle_; }

 private:
  NativeHandle handle_ = kNoHandle;
};

// ---------------------------------------------------------------------------------------------
// Opening. On an error the returned file is not open. The share modes apply on Windows only: no
// other system restricts what a second open of the same file may do.

/// Opens an existing file for sequential reading, shared for reading, writing and deletion. A
/// folder is an error on Windows; on other systems it opens, and `Facts` reports it.
[[nodiscard]] File OpenForRead(const Path& path, std::error_code& ec);

/// As `OpenForRead`, shared for reading only: until the file is closed, every write to it, its
/// removal, and every rename of it, over it or of a folder above it fails. The open itself fails
/// while another process has the file open for one of these.
[[nodiscard]] File HoldForRead(const Path& path, std::error_code& ec);

/// True on Windows: a folder that `HoldFolder` has open, and the folders above it, cannot be
/// renamed or removed until it is closed.
[[nodiscard]] bool HeldFoldersStay();

/// Opens an existing folder, which keeps it in its place where `HeldFoldersStay`. A link is an
/// error: it can lead elsewhere a moment later.
[[nodiscard]] File HoldFolder(const Path& path, std::error_code& ec);

enum class NewFileAccess { kWrite, kReadWrite };

/// Creates a file that must not exist, not shared until it is closed. For an existing entry
/// IsExistsError(ec) is true.
[[nodiscard]] File CreateNewFile(const Path& path, NewFileAccess access, std::error_code& ec);

/// As `CreateNewFile`, for the entry `name` of an open folder. The file becomes an entry of that
/// folder, even when another one has taken the folder's path meanwhile. `name` has no separator.
[[nodiscard]] File CreateNewFileIn(const File& folder, const Path& name, NewFileAccess access,
                                   std::error_code& ec);

/// As `CreateNewFile` for writing, for a path at which another user may have placed a link. The
/// link counts as an existing entry even when its target is missing; without this, Windows would
/// create the missing target.
[[nodiscard]] File CreateNewFileItself(const Path& path, std::error_code& ec);

/// Creates a file that must not exist, for writing, shared for reading. Each write returns after
/// the device has the data.
[[nodiscard]] File CreateNewWriteThrough(const Path& path, std::error_code& ec);

/// Opens a file for writing, shared for reading. Truncates an existing file; creates a missing one.
[[nodiscard]] File CreateTruncatedFile(const Path& path, std::error_code& ec);

/// Opens a file for appending, shared for reading, writing and deletion. Creates a missing file.
/// Each `WriteSome` puts its bytes at the end of the file in one piece.
[[nodiscard]] File OpenForAppend(const Path& path, std::error_code& ec);

/// True when the file can be opened for reading and writing without sharing, which is what
/// replacing it needs. Costs one open; nothing stays open.
[[nodiscard]] bool OpensExclusively(const Path& path, std::error_code& ec);

// ---------------------------------------------------------------------------------------------
// Whole contents

/// Reads from `offset_bytes` on until `size` bytes are there or the file ends; a single system call
/// may read less. `*read` is the number of bytes in `buffer`, also after an error. False on an
/// error. The current position is undefined afterwards.
[[nodiscard]] bool ReadUpTo(File& file, std::uint64_t offset_bytes, void* buffer, std::size_t size,
                            std::size_t* read, std::error_code& ec);

/// Writes all of `data`. A system call that writes nothing is a failure with error code 0.
[[nodiscard]] bool WriteAll(File& file, const void* data, std::size_t size, std::error_code& ec);

/// Copies the rest of `from` to the current position of `to`; `*copied_bytes` is its size. Fails as
/// `Read` and `WriteAll` do.
[[nodiscard]] bool CopyContents(File& from, File& to, std::uint64_t* copied_bytes,
                                std::error_code& ec, const KeepAlive& keep_alive = {});

}  // namespace zul::fs
