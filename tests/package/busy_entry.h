#pragma once

#include <memory>

#include "core/file_layer.h"

namespace zul::test {

/// Makes an entry at `path` that nobody can rename until it is let go: on Windows a file that is
/// held open without sharing, elsewhere a folder that something is mounted on.
class BusyEntry {
 public:
  explicit BusyEntry(const fs::Path& path);
  ~BusyEntry();
  BusyEntry(const BusyEntry&) = delete;
  BusyEntry& operator=(const BusyEntry&) = delete;

  /// False where this user may not make such an entry.
  [[nodiscard]] bool is_busy() const;
  void LetGo();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zul::test
