#pragma once

// The file layer: every touch of the disk by the system goes through here. On Windows it stands on
// Win32, since std::filesystem of MinGW does not see reparse points and loses error values;
// elsewhere on POSIX and std::filesystem.
//
// Paths never carry the \\?\ prefix: the layer adds it just before a Win32 call, so that long paths
// work. Every function reports through a std::error_code of std::system_category() (see
// core/system_error.h); it is cleared on success, and nothing throws but out-of-memory.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "core/keep_alive.h"
#include "core/path.h"

namespace zul::fs {

/// Operations on one file call it about once per MiB and while a large file is flushed (small files
/// end without a call), operations on a tree for each entry.
using zul::KeepAlive;

/// From this size on a file's flush may take longer than a user waits for a window to answer.
inline constexpr std::uint64_t kLongFlushBytes = std::uint64_t{1} << 20;

// ---------------------------------------------------------------------------------------------
// Open files

/// What an opened file is.
struct FileFacts {
  bool is_disk_file = false;  ///< not a device, pipe or console
  bool is_directory = false;
};

/// One open file, closed on destruction (a failure of that close is lost: call `Close` to see it).
/// Not for use by two threads at once.
class File {
 public:
  /// A HANDLE on Windows, a file descriptor elsewhere.
  using NativeHandle = std::intptr_t;
  static constexpr NativeHandle kNoHandle = -1;

  File() = default;
  /// Takes over an open handle.
  explicit File(NativeHandle handle) : handle_(handle) {}
  ~File();
  File(File&& other) noexcept : handle_(std::exchange(other.handle_, kNoHandle)) {}
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  [[nodiscard]] bool is_open() const { return handle_ != kNoHandle; }

  /// Reads at most `size` bytes; `*read` is 0 at the end of the file. False on an error.
  [[nodiscard]] bool Read(void* buffer, std::size_t size, std::size_t* read, std::error_code& ec);

  /// Reads at most `size` bytes from `offset_bytes` on; `*read` is 0 at the end of the file. Where
  /// the next `Read` goes on is undefined afterwards. False on an error.
  [[nodiscard]] bool ReadAt(std::uint64_t offset_bytes, void* buffer, std::size_t size,
                            std::size_t* read, std::error_code& ec);

  /// Writes with one system call, which may write less than `size`; `*written` says how much.
  [[nodiscard]] bool WriteSome(const void* data, std::size_t size, std::size_t* written,
                               std::error_code& ec);

  /// Makes what was written durable (FlushFileBuffers, fsync). Blocks until the device has it.
  [[nodiscard]] bool Flush(std::error_code& ec);

  /// Closes. The handle counts as closed even when the system reports a failure, so that it is
  /// never closed twice. Closing a file that is not open succeeds.
  [[nodiscard]] bool Close(std::error_code& ec);

  [[nodiscard]] bool Facts(FileFacts* facts, std::error_code& ec) const;
  [[nodiscard]] bool Size(std::uint64_t* size_bytes, std::error_code& ec) const;

  /// Where the open file or folder is now, with every link resolved, whatever its old path has come
  /// to mean. Costs no open. Empty only together with an error.
  [[nodiscard]] Path Whereabouts(std::error_code& ec) const;

  /// Gives this file the last-write time of `source` and its attributes (elsewhere than on Windows
  /// its permission bits).
  [[nodiscard]] bool TakeTimeAndAttributes(const File& source, std::error_code& ec);

 private:
  NativeHandle handle_ = kNoHandle;
};

/// Opens an existing file for sequential reading; others may read, write and delete it meanwhile.
/// Windows refuses a folder here; elsewhere it opens and only `Facts` tells.
[[nodiscard]] File OpenForRead(const Path& path, std::error_code& ec);

/// Opens an existing folder for `Whereabouts`; others may do with it what they like.
[[nodiscard]] File OpenFolder(const Path& path, std::error_code& ec);

enum class NewFileAccess { kWrite, kReadWrite };

/// Creates a file that must not exist, held exclusively until it is closed (only Windows has
/// sharing modes; the other openers' promises about others hold there too). An existing entry gives
/// an error for which IsExistsError holds.
[[nodiscard]] File CreateNewFile(const Path& path, NewFileAccess access, std::error_code& ec);

/// As `CreateNewFile` for writing, and a link of that name exists even when it leads nowhere: the
/// file is never made where a link points to, which Windows would do otherwise.
[[nodiscard]] File CreateNewFileItself(const Path& path, std::error_code& ec);

/// Creates a file that must not exist, for writing; others may read it meanwhile. A write returns
/// when the device has it.
[[nodiscard]] File CreateNewWriteThrough(const Path& path, std::error_code& ec);

/// Opens for writing from the start, truncating what is there or creating it; others may read.
[[nodiscard]] File CreateTruncatedFile(const Path& path, std::error_code& ec);

/// Opens for appending, creating the file if needed; others may read, write and delete it
/// meanwhile. Each WriteSome lands at the end of the file as one piece.
[[nodiscard]] File OpenForAppend(const Path& path, std::error_code& ec);

/// True when the file can be opened for reading and writing with nobody else on it, which is what
/// it takes to replace it. Costs one open; nothing stays open.
[[nodiscard]] bool OpensExclusively(const Path& path, std::error_code& ec);

/// Writes all of `data`. A call of the system that writes nothing counts as a failure with code 0.
[[nodiscard]] bool WriteAll(File& file, const void* data, std::size_t size, std::error_code& ec);

/// Copies what is left of `from` to where `to` stands. Fails as `Read` and `WriteAll` do.
[[nodiscard]] bool CopyContents(File& from, File& to, std::error_code& ec,
                                const KeepAlive& keep_alive = {});

// ---------------------------------------------------------------------------------------------
// What is there

enum class EntryKind {
  kUnknown,   ///< the query failed; the error code says why
  kNotFound,  ///< nothing of that name, or a folder above it is missing: not an error
  kRegular,
  kDirectory,
  kLink,   ///< a symlink, junction or other reparse point; only when links are not followed
  kOther,  ///< a device and the like
};

enum class Links { kFollow, kDoNotFollow };

/// True when `path` is a regular file, links followed. A query that fails counts as no.
[[nodiscard]] bool IsRegularFile(const Path& path);

/// True when a query that follows links finds something at `path`. A query that fails counts as no.
[[nodiscard]] bool Exists(const Path& path);

/// The kind of the entry at `path`. A dangling link is kNotFound when followed.
[[nodiscard]] EntryKind KindOf(const Path& path, Links links, std::error_code& ec);

/// `PathProbe`, the result of inspecting one path without reading it.
struct PathProbe {
  enum Kind { kExists = 0, kMissing = 1, kUnresolvedReparsePoint = 2, kInspectionFailed = 3 };
  Kind kind = kInspectionFailed;
  std::error_code system_error;  ///< for kMissing and kInspectionFailed
  bool is_directory = false;     ///< for kExists
};

/// Tells an absent path from a dangling link and from one that cannot be inspected.
[[nodiscard]] PathProbe ProbePath(const Path& path);

/// True when both paths exist and are the same file or folder.
[[nodiscard]] bool IsSameFile(const Path& a, const Path& b, std::error_code& ec);

/// Time since the last write to the entry, by the system's clock; negative for a time ahead of it.
[[nodiscard]] std::chrono::seconds AgeOf(const Path& path, std::error_code& ec);

/// Size of a file, in bytes; a folder is an error.
[[nodiscard]] std::uint64_t SizeOf(const Path& path, std::error_code& ec);

/// Bytes that this user may still write on the volume of `path`, which must be an existing folder.
[[nodiscard]] std::uint64_t AvailableSpace(const Path& path, std::error_code& ec);

// ---------------------------------------------------------------------------------------------
// Where it really is

/// The path with every link resolved; the entry must exist. Costs one open on Windows.
[[nodiscard]] Path Canonical(const Path& path, std::error_code& ec);

/// As `Canonical` for the longest part that exists; the rest is appended in its lexically normal
/// form; a dangling link counts as missing. Absolute for every input but the empty path, which is
/// an error, as is a link loop or a folder that may not be entered. Empty only together with an
/// error.
[[nodiscard]] Path WeaklyCanonical(const Path& path, std::error_code& ec);

[[nodiscard]] Path CurrentDirectory(std::error_code& ec);

// ---------------------------------------------------------------------------------------------
// Listing

struct DirectoryEntry {
  Path path;                             ///< the listed folder's path joined with the name
  EntryKind kind = EntryKind::kUnknown;  ///< without following links
};

/// The entries of one folder, in the system's order, without "." and "..".
[[nodiscard]] std::vector<DirectoryEntry> ListDirectory(const Path& path, std::error_code& ec);

/// Walks a tree in pre-order, a folder before its contents, in the system's order, and never enters
/// a link. Usage: `while (walker.Next(&entry, ec)) ...; if (ec) ...`.
class TreeWalker {
 public:
  /// Starts at `root`, which is not itself reported. A root that cannot be listed shows at the
  /// first `Next`.
  explicit TreeWalker(Path root);
  ~TreeWalker();
  TreeWalker(const TreeWalker&) = delete;
  TreeWalker& operator=(const TreeWalker&) = delete;

  /// The next entry. False at the end (no error) and on an error, after which the walk is over.
  [[nodiscard]] bool Next(DirectoryEntry* entry, std::error_code& ec);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// ---------------------------------------------------------------------------------------------
// Changes

enum class CreateResult { kCreated, kExisted, kFailed };

/// Creates one folder, not its parents. kExisted when any entry of that name is there (the code
/// says "exists" then), so that the caller can tell its own folder from someone else's.
[[nodiscard]] CreateResult CreateDirectoryOnce(const Path& path, std::error_code& ec);

/// Creates a folder with its parents. True when it is a folder afterwards, also one that was there.
[[nodiscard]] bool CreateDirectories(const Path& path, std::error_code& ec);

enum class Overwrite { kNo, kYes };

/// Copies the contents, last-write time and attributes of one file. With Overwrite::kNo an existing
/// target is an error and is not touched. After a failure a partial target may remain.
[[nodiscard]] bool CopyFileTo(const Path& from, const Path& to, Overwrite overwrite,
                              std::error_code& ec);

/// As `CopyFileTo` with Overwrite::kNo, and the copy is flushed to the device before it is closed.
[[nodiscard]] bool CopyFileDurably(const Path& from, const Path& to, std::error_code& ec,
                                   const KeepAlive& keep_alive = {});

/// Renames a file or folder within a volume. `to` must not exist (Windows refuses it there; the
/// native side refuses it too).
[[nodiscard]] bool Rename(const Path& from, const Path& to, std::error_code& ec);

/// Moves a file onto `to`, replacing it in one step, written through (MoveFileExW with 11).
[[nodiscard]] bool MoveReplacing(const Path& from, const Path& to, std::error_code& ec);

/// As `MoveReplacing`, and never by copying: whoever opens `to` finds the old file or the new one
/// whole (MoveFileExW with 9).
[[nodiscard]] bool MoveReplacingWhole(const Path& from, const Path& to, std::error_code& ec);

/// Has the system move a file onto `to` at its next start (MoveFileExW with 5). Fails where the
/// system has no such service.
[[nodiscard]] bool MoveReplacingAtReboot(const Path& from, const Path& to, std::error_code& ec);

/// Moves a file onto a name that must be free, in one step, written through (MoveFileExW with 8).
/// An existing target gives an error for which IsExistsError holds, and neither file changes.
[[nodiscard]] bool MoveToNewName(const Path& from, const Path& to, std::error_code& ec);

/// Removes a file, an empty folder or a link (never its target). True when something was removed;
/// false without an error when nothing was there. A read-only file is an error on Windows. The
/// system may report success while the entry lives on until its last user closes it: who must know
/// asks `KindOf`.
bool Remove(const Path& path, std::error_code& ec);

/// Removes an entry with all that it holds, never through a link, read-only files included. Goes on
/// past a failure and reports the first. Nothing there is success.
bool RemoveTree(const Path& path, std::error_code& ec, const KeepAlive& keep_alive = {});

/// Flushes a folder, so that a rename in it is durable. The empty path is the current directory.
bool FlushDirectory(const Path& path, std::error_code& ec);

}  // namespace zul::fs
