#pragma once

// A file that one process at a time can hold. It says who may work on the folder that it is in. The
// system itself keeps the rule, so it holds for all sessions of a machine and, on a share, for all
// machines. A process that ends in any way, or a connection that ends, gives up its hold.

#include <system_error>

#include "core/file.h"
#include "core/path.h"

namespace zul::fs {

/// The hold on one lock file; at first none. The destructor releases it.
class LockFile {
 public:
  enum class Result {
    kTaken,
    kHeld,   ///< another holder has it, perhaps in this process
    kFailed  ///< the file can be neither created nor opened; the error code says why
  };

  LockFile() = default;
  ~LockFile() { Release(); }
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

  /// Takes the file at `path`, whose folder must exist, and creates it when it is missing. A link
  /// at `path` is not followed. Never waits for a holder; waits up to 1 s for a file whose removal
  /// has begun. `ec` is set for kHeld and kFailed. Call it once.
  [[nodiscard]] Result Take(const Path& path, std::error_code& ec);

  /// Ends the hold and removes the file. Does nothing without a hold. When a process is killed,
  /// Windows removes the file; other systems leave it, and the next holder takes it.
  void Release();

 private:
  File file_;
  Path path_;  ///< of `file_`; not used on Windows
};

}  // namespace zul::fs
