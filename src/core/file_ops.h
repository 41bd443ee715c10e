#pragma once

// Creates files so that no reader sees a partly written one and no existing file is overwritten.
// Publishing writes the complete file under a unique temporary name beside the target, flushes it
// to the device, and moves it to the target in one step that fails when the target exists. A
// process that ends during this leaves at most a "<name>.tmp.<token>.<attempt>" file.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/file.h"
#include "core/path.h"

namespace zul {

/// Outcome of a publish. Callers test the numbers, so these must not change.
enum FileOpStatus : std::uint32_t {
  kFileOpOk = 0,
  kFileOpBadPath = 1,
  kFileOpParentNotCreated = 2,
  kFileOpTempNotCreated = 3,
  kFileOpWriteFailed = 4,
  kFileOpFlushFailed = 5,
  kFileOpCloseFailed = 6,
  kFileOpMoveFailed = 7,
  kFileOpTargetExists = 8,
  kFileOpPermissionDenied = 9,
  kFileOpDiskFull = 10,
  kFileOpSharingViolation = 11,
  kFileOpException = 12,
  kFileOpUnknownException = 13,
};

/// Result of a publish and of each of its steps.
struct FileOpResult {
  FileOpResult() = default;
  /// Converts the paths to UTF-8. With `succeeded` the status, number and text are ignored.
  FileOpResult(bool succeeded, FileOpStatus status_code, std::uint32_t error_number,
               std::string text, const fs::Path& target, const fs::Path& temporary);

  bool ok = false;
  FileOpStatus status = kFileOpOk;  ///< 0 exactly when `ok`
  std::uint32_t system_error = 0;   ///< 0 when `ok`, and for a failure without a system error
  std::string message;              ///< empty when `ok`
  std::string path;                 ///< the target, UTF-8
  std::string temp_path;            ///< the temporary file, UTF-8; empty when none is involved
};

struct AtomicPublishOptions {
  bool create_parent = false;  ///< create missing parent directories first
  bool flush_parent = false;   ///< flush the parent directory after the move
  bool reserved = false;       ///< never read; a place in the record's fixed layout
};

/// Publishes `contents` as a new file at `target`. An existing target stays unchanged (status 8).
/// Blocks until the device has the file. After a failure no file of this call remains. Throws
/// nothing.
[[nodiscard]] FileOpResult PublishNewFile(const fs::Path& target, std::string_view contents,
                                          const AtomicPublishOptions& options);

/// Single owner of a new file. The calling order is create, write (any number of times), flush,
/// close, release. The destructor removes the file that the object created unless `release` was
/// called, so an incomplete file never remains. Used by one thread. Each operation clears `*error`
/// and stores a UTF-8 text on failure; `error` may be null.
class ExclusiveFile {
 public:
  /// Touches nothing on disk. A path that is not valid UTF-8 makes `create` fail.
  explicit ExclusiveFile(std::string_view utf8_path);
  ~ExclusiveFile();
  ExclusiveFile(ExclusiveFile&&) noexcept;
  ExclusiveFile& operator=(ExclusiveFile&&) noexcept;
  ExclusiveFile(const ExclusiveFile&) = delete;
  ExclusiveFile& operator=(const ExclusiveFile&) = delete;

  /// 0 when the file was created, 1 when the path exists (without an error text), 2 on any other
  /// failure. Only the first call can succeed. With `folder`, the open parent folder of the path,
  /// the file is created as its entry, whatever the path leads to by then.
  [[nodiscard]] int create(std::string* error, const fs::File* folder = nullptr);
  /// Writes all of `data`, which may be null when `size` is 0.
  [[nodiscard]] bool write(const void* data, std::size_t size, std::string* error);
  /// Flushes the file to the device.
  [[nodiscard]] bool flush(std::string* error);
  /// Closes the file. Succeeds when it is not open.
  [[nodiscard]] bool close(std::string* error);
  /// The destructor no longer removes the file.
  void release();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zul
