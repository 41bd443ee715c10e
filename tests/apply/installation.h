#pragma once

// An installation, a staged update, and applies of that update to the installation.

#include <gtest/gtest.h>

#include "apply/apply.h"
#include "core/text.h"
#include "tests/support/temp_folder.h"
#include "tests/support/trace_reader.h"

namespace zul::test {

/// The trace of this process is written to a temporary folder.
class Installation {
 public:
  Installation() {
    std::error_code ec;
    EXPECT_TRUE(fs::CreateDirectories(staged_root, ec) && fs::CreateDirectories(target_root, ec));
  }

  // Names are UTF-8 and relative to the root of the installation or of the staged tree.
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

  // The results of the last apply.
  std::string error;
  ApplyOutcome outcome;
};

}  // namespace zul::test
