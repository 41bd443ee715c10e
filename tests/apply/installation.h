#pragma once

// An installation, a staged update beside it, and one apply of the one to the other.

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "apply/apply.h"
#include "core/text.h"
#include "tests/support/temp_folder.h"
#include "tests/support/trace_reader.h"

namespace zul::test {

/// Relative path (a folder with "/" behind it) to contents, which folders and links have none of.
using Snapshot = std::map<std::string, std::string>;

[[nodiscard]] Snapshot TakeSnapshot(const fs::Path& root);

class Installation {
 public:
  /// Sends the trace of this process into a folder of its own.
  Installation();

  // Names are UTF-8, relative to the two roots, with "/" between their parts.
  void Install(std::string_view name, std::string_view contents);
  void Stage(std::string_view name, std::string_view contents);

  /// Runs one apply. `on_pump`, if set, is called whenever the apply lets the window live once
  /// it changes things: before each change and before each record that is undone.
  bool Apply(const ApplyFaultInjection& faults = {}, std::function<void()> on_pump = {});

  /// The traced events since the start, as TraceInTempFolder has them.
  [[nodiscard]] std::vector<std::string> Events() const { return trace_.Events(); }

 private:
  const TraceInTempFolder trace_;

 public:
  const TempFolder& folder = trace_.folder();
  const fs::Path staged_root = folder.path() / "work" / "payload";
  const fs::Path target_root = folder / "app";
  const fs::Path backup_root = folder.path() / "work" / "rollback_backup";

  // What the last apply left.
  std::string error;
  ApplyOutcome outcome;
};

}  // namespace zul::test
