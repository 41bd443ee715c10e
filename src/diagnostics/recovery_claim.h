#pragma once

// How processes that recover at the same time divide the work. For this room only.

#include <string>

#include "core/path.h"

namespace zul {

enum class ClaimKind { kFile, kFolder };

/// The exclusive right to recover a piece of evidence. A process takes it by renaming the evidence
/// to "<name>.recovering.<pid>", which only one process can do. Unless the evidence was consumed,
/// it gets its name back at the end of the scope.
///
/// A process that dies in between leaves the claimed name. Another process takes over a folder of
/// such a name once the first process is gone; a file stays.
class RecoveryClaim {
 public:
  /// `path` may be a folder that another process has claimed.
  RecoveryClaim(const fs::Path& path, ClaimKind kind);
  ~RecoveryClaim();
  RecoveryClaim(const RecoveryClaim&) = delete;
  RecoveryClaim& operator=(const RecoveryClaim&) = delete;

  /// False when another process holds the evidence or the system refuses the rename.
  [[nodiscard]] bool held() const { return held_; }
  /// The path of the claimed evidence.
  [[nodiscard]] const fs::Path& path() const { return claimed_; }
  /// The name of the evidence before any claim, UTF-8.
  [[nodiscard]] std::string OriginalName() const;

  /// True while the evidence exists under the claimed name. Two processes may both succeed in
  /// renaming one file if the second began before the first had finished. The process that lost
  /// then finds nothing under its name.
  [[nodiscard]] bool StillHeld() const;

  /// Ends the claim: the evidence was deleted or moved for good.
  void Consumed() { held_ = false; }

 private:
  fs::Path original_;
  fs::Path claimed_;
  bool held_ = false;
};

}  // namespace zul
