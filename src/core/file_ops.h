#pragma once

// Creating new files so that no reader sees a half-written one and no existing file is overwritten.
// Publishing writes a complete file under a unique temporary name beside its target, makes it
// durable, and moves it onto the target in one step that fails if the target exists. A process that
// dies half way leaves at most a "<name>.tmp.<token>.<attempt>" file.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "core/path.h"

namespace zul {

/// Outcome codes of a publish. The numbers are part of the contract: callers test them.
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

/// Outcome of a publish and of each step inside it.
struct FileOpResult {
  FileOpResult() = default;
  FileOpResult(bool succeeded, FileOpStatus status_code, std::uint32_t error_number,
               std::string text, const fs::Path& target, const fs::Path& temporary);

  bool ok = false;
  FileOpStatus status = kFileOpOk;  ///< 0 exactly when `ok`
  std::uint32_t system_error = 0;   ///< 0 when `ok`, and for failures without a system error
  std::string message;              ///< empty when `ok`
  std::string path;                 ///< the target, UTF-8
  std::string temp_path;            ///< the temporary file, UTF-8; empty when none is involved
};

struct AtomicPublishOptions {
  bool create_parent = false;  ///< create missing parent directories first
  bool flush_parent = false;   ///< flush the parent directory after the move
  bool reserved = false;       ///< read by nobody; kept for the record's shape
};

/// Publishes `contents` at `target` unless something is there already (status 8; the target is not
/// touched). Blocks until the file is on the device. Throws nothing.
[[nodiscard]] FileOpResult PublishNewFile(const fs::Path& target, std::string_view contents,
                                          const AtomicPublishOptions& options);

/// The status that a system error stands for; codes of no special meaning give `default_status`.
[[nodiscard]] FileOpStatus FileOpStatusOf(const std::error_code& code, FileOpStatus default_status);

/// Single owner of a file that did not exist before. Calling order: create, write any number of
/// times, flush, close, release. Destroyed before `release`, it removes the file that it made, so a
/// file that was not written to the end never stays. For one thread. Error texts are UTF-8; an
/// `error` may be null.
class ExclusiveFile {
 public:
  explicit ExclusiveFile(std::string_view utf8_path);
  ~ExclusiveFile();
  ExclusiveFile(ExclusiveFile&&) noexcept;
  ExclusiveFile& operator=(ExclusiveFile&&) noexcept;
  ExclusiveFile(const ExclusiveFile&) = delete;
  ExclusiveFile& operator=(const ExclusiveFile&) = delete;

  /// 0 created; 1 something of that name exists (no error text); 2 any other failure. Only the
  /// first call can succeed.
  [[nodiscard]] int create(std::string* error);
  [[nodiscard]] bool write(const void* data, std::size_t size, std::string* error);
  [[nodiscard]] bool flush(std::string* error);
  [[nodiscard]] bool close(std::string* error);
  /// Where the open file is, links resolved; empty together with an error.
  [[nodiscard]] fs::Path whereabouts(std::error_code& ec) const;
  /// Lets the file outlive this object.
  void release();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zul
