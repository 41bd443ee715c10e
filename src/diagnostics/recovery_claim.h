#pragma once

// How processes that recover at the same time share the work. Inside the room only.

#include <string>

#include "core/file_layer.h"

namespace zul {

enum class ClaimKind { kFile, kFolder };

/// The exclusive right to a piece of evidence, taken by renaming it to "<name>.recovering.<pid>",
/// which only one process can do. Goes back under its name at the end of the scope, unless the
/// evidence was consumed by then.
///
/// A process that dies in between leaves the claimed name. A folder of that name is taken over once
/// that process is gone; a file stays.
class RecoveryClaim {
 public:
  /// `path` may be a folder that a process has claimed and left.
  RecoveryClaim(const fs::Path& path, ClaimKind kind);
  ~RecoveryClaim();
  RecoveryClaim(const RecoveryClaim&) = delete;
  RecoveryClaim& operator=(const RecoveryClaim&) = delete;

  /// False when another process has it, or the system refuses the rename.
  [[nodiscard]] bool held() const { return held_; }
  /// Where it lies now.
  [[nodiscard]] const fs::Path& path() const { return claimed_; }
  /// Its name before anyone claimed it, UTF-8.
  [[nodiscard]] std::string OriginalName() const;

  /// True while it lies there. Two renames of one file may both seem to succeed where the second
  /// was begun before the first: the loser then finds nothing under its name.
  [[nodiscard]] bool StillHeld() const;

  /// The evidence is gone, or lies elsewhere for good.
  void Consumed() { held_ = false; }

 private:
  fs::Path original_;
  fs::Path claimed_;
  bool held_ = false;
};

}  // namespace zul
