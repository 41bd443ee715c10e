#pragma once

// The file layer: the system accesses the disk through this header, which works on paths, and
// core/file.h, which works on one open file, and in no other way. On Windows the layer calls Win32,
// because the std::filesystem of MinGW does not see reparse points and loses error values. On other
// systems it calls POSIX.
//
// Paths never carry the \\?\ prefix: the layer adds it just before a Win32 call, so that long paths
// work. Errors are std::error_code values of std::system_category() (core/system_error.h). Every
// function clears `ec` on success. Nothing throws except when memory runs out.

#include <chrono>
#include <cstdint>
#include <memory>
#include <system_error>
#include <vector>

#include "core/file.h"
#include "core/keep_alive.h"
#include "core/path.h"

namespace zul::fs {

// ---------------------------------------------------------------------------------------------
// Entries

enum class EntryKind {
  kUnknown,   ///< the query failed; the error code says why
  kNotFound,  ///< there is no such entry, or no such folder above it; not an error
  kRegular,
  kDirectory,
  kLink,   ///< a symlink, junction or other reparse point; only when links are not followed
  kOther,  ///< a device or another kind
};

enum class Links { kFollow, kDoNotFollow };

/// The kind of the entry at `path`. With Links::kFollow a dangling link is kNotFound.
[[nodiscard]] EntryKind KindOf(const Path& path, Links links, std::error_code& ec);

/// True when `path` is a regular file after links are followed. False when the query fails.
[[nodiscard]] bool IsRegularFile(const Path& path);

/// True when there is an entry at `path` after links are followed. False when the query fails.
[[nodiscard]] bool Exists(const Path& path);

/// `PathProbe`, the result of inspecting one path without reading it.
struct PathProbe {
  enum Kind { kExists = 0, kMissing = 1, kUnresolvedReparsePoint = 2, kInspectionFailed = 3 };
  Kind kind = kInspectionFailed;
  std::error_code system_error;  ///< for kMissing and kInspectionFailed
  bool is_directory = false;     ///< for kExists
};

/// Inspects `path`: an existing entry, a missing one, a dangling link, or a failed inspection.
[[nodiscard]] PathProbe ProbePath(const Path& path);

/// True when both paths exist and are the same file or folder.
[[nodiscard]] bool IsSameFile(const Path& a, const Path& b, std::error_code& ec);

/// Time since the last write to the entry, by the system's clock. Negative when the last write is
/// in the future.
[[nodiscard]] std::chrono::seconds AgeOf(const Path& path, std::error_code& ec);

/// Size of a file, in bytes; a folder is an error.
[[nodiscard]] std::uint64_t SizeOf(const Path& path, std::error_code& ec);

/// Bytes that this user may still write on the volume of `path`, which must be an existing folder.
[[nodiscard]] std::uint64_t AvailableSpace(const Path& path, std::error_code& ec);

/// A volume, as seen from one of its folders.
struct Volume {
  Path root;                          ///< its root folder: "C:\", "\\server\share\", a mount point
  std::uint64_t available_bytes = 0;  ///< that this user may still write in the folder
  std::uint64_t cluster_bytes = 1;    ///< a file takes a whole number of clusters
};

/// Stores the volume of `folder`, which must exist. False on an error.
[[nodiscard]] bool VolumeOf(const Path& folder, Volume* volume, std::error_code& ec);

// ---------------------------------------------------------------------------------------------
// Resolved paths

/// The path with every link resolved; the entry must exist. Costs one open on Windows.
[[nodiscard]] Path Canonical(const Path& path, std::error_code& ec);

/// The longest existing part of the path with every link resolved, followed by the rest in its
/// lexically normal form. A dangling link counts as missing. The result is absolute. The empty
/// path, a link loop and a folder without access are errors. Empty exactly when there is an error.
[[nodiscard]] Path WeaklyCanonical(const Path& path, std::error_code& ec);

/// The current directory of the process, with every link resolved on systems other than Windows.
[[nodiscard]] Path CurrentDirectory(std::error_code& ec);

// ---------------------------------------------------------------------------------------------
// Listings

struct DirectoryEntry {
  Path path;                             ///< the listed folder's path joined with the name
  EntryKind kind = EntryKind::kUnknown;  ///< without following links
  std::uint64_t size_bytes = 0;          ///< of a regular file; 0 also when it is unavailable
};

/// The entries of one folder, in the system's order, without "." and "..".
[[nodiscard]] std::vector<DirectoryEntry> ListDirectory(const Path& path, std::error_code& ec);

/// Walks a tree, each folder before its contents, in the system's order. Never enters a link below
/// the root. Usage: `while (walker.Next(&entry, ec)) ...; if (ec) ...`.
class TreeWalker {
 public:
  /// Starts at `root`, which is not reported itself. A root that cannot be listed is an error of
  /// the first `Next`.
  explicit TreeWalker(Path root);
  ~TreeWalker();
  TreeWalker(const TreeWalker&) = delete;
  TreeWalker& operator=(const TreeWalker&) = delete;

  /// Gets the next entry. False at the end, without an error, and on an error, which ends the walk.
  [[nodiscard]] bool Next(DirectoryEntry* entry, std::error_code& ec);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// ---------------------------------------------------------------------------------------------
// Folders

enum class CreateResult { kCreated, kExisted, kFailed };

/// Creates one folder, not its parents. kExisted when the path has an entry of any kind, so that
/// the caller knows which folders are its own; IsExistsError(ec) is true then.
[[nodiscard]] CreateResult CreateDirectoryOnce(const Path& path, std::error_code& ec);

/// Creates a folder with its parents. True when the path is a folder afterwards, new or not.
[[nodiscard]] bool CreateDirectories(const Path& path, std::error_code& ec);

/// Flushes a folder, which makes a rename in it durable. The empty path is the current directory.
bool FlushDirectory(const Path& path, std::error_code& ec);

// ---------------------------------------------------------------------------------------------
// Copies and moves

/// Copies the contents, last-write time and attributes of one file and replaces an existing target.
/// After a failure a partial target may remain.
[[nodiscard]] bool CopyFileTo(const Path& from, const Path& to, std::error_code& ec);

/// As `CopyFileTo`, to a new file, and flushes the copy to the device. An existing target is an
/// error and does not change.
[[nodiscard]] bool CopyFileDurably(const Path& from, const Path& to, std::error_code& ec,
                                   const KeepAlive& keep_alive = {});

/// Renames a file or folder within a volume. An existing `to` is an error.
[[nodiscard]] bool Rename(const Path& from, const Path& to, std::error_code& ec);

/// Moves a file to `to` and replaces the file that is there, in one step, written through
/// (MoveFileExW with 11).
[[nodiscard]] bool MoveReplacing(const Path& from, const Path& to, std::error_code& ec);

/// As `MoveReplacing`, and never by copying: any process that opens `to` gets the complete old file
/// or the complete new one (MoveFileExW with 9).
[[nodiscard]] bool MoveReplacingWhole(const Path& from, const Path& to, std::error_code& ec);

/// Asks the system to do `MoveReplacing` at its next start (MoveFileExW with 5). Fails on systems
/// without this service.
[[nodiscard]] bool MoveReplacingAtReboot(const Path& from, const Path& to, std::error_code& ec);

/// Moves a file to a new name in one step, written through (MoveFileExW with 8). For an existing
/// target IsExistsError(ec) is true, and neither file changes.
[[nodiscard]] bool MoveToNewName(const Path& from, const Path& to, std::error_code& ec);

// ---------------------------------------------------------------------------------------------
// Removal

/// Removes a file, an empty folder or a link, never the link's target. True when an entry was
/// removed; false without an error when there was none. A read-only file is an error on Windows.
/// Windows also reports success when another process has the file open with delete sharing; the
/// entry then remains until that process closes it. Call `KindOf` where the difference matters.
bool Remove(const Path& path, std::error_code& ec);

/// Removes an entry with everything below it, read-only files included, and never follows a link.
/// After a failure it continues with the other entries and reports the first failure at the end. A
/// missing entry is a success.
bool RemoveTree(const Path& path, std::error_code& ec, const KeepAlive& keep_alive = {});

}  // namespace zul::fs
