#pragma once

// An installation, a staged update beside it, and one apply of the one to the other.

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <string_view>

#include "apply/apply.h"
#include "core/text.h"
#include "tests/support/temp_folder.h"
#include "tests/support/trace_reader.h"

namespace zul::test {

/// Relative path (a folder with "/" behind it) to contents, which folders have none of.
using Snapshot = std::map<std::string, std::string>;

inline Snapshot TakeSnapshot(const fs::Path& root) {
  Snapshot snapshot;
  std::istringstream lines(ListTree(root));
  for (std::string line; std::getline(lines, line);) {
    snapshot[line] = line.ends_with('/') ? "" : ReadFile(root / PathFromUtf8(line).value());
  }
  return snapshot;
}

/// The trace of this process goes into a folder of its own.
class Installation {
 public:
  Installation() {
    std::error_code ec;
    EXPECT_TRUE(fs::CreateDirectories(staged_root, ec) && fs::CreateDirectories(target_root, ec));
  }

  // Names are UTF-8, relative to the two roots, with "/" between their parts.
  void Install(std::string_view name, std::string_view contents) const {
    WriteFile(target_root / PathFromUtf8(name).value(), contents);
  }
  void Stage(std::string_view name, std::string_view contents) const {
    WriteFile(staged_root / PathFromUtf8(name).value(), contents);
  }

  bool Apply(const ApplyFaultInjection& faults = {}, UpdateProgressWindow* window = nullptr) {
    ApplyCloseContext context{window, false};
    error = "left over from an earlier stage";
    return ApplyStagedUpdate(staged_root, target_root, 0, &context, false, &error, &outcome,
                             &faults);
  }

  const TraceInTempFolder trace;
  const TempFolder& folder = trace.folder();
  const fs::Path staged_root = folder.path() / "work" / "payload";
  const fs::Path target_root = folder / "app";
  const fs::Path backup_root = folder.path() / "work" / "rollback_backup";

  // What the last apply left.
  std::string error;
  ApplyOutcome outcome;
};

}  // namespace zul::test
