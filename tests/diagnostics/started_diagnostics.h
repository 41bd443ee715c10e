#pragma once

// Diagnostics of this process for one test, in a folder of its own, without observer and upload.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "core/logger.h"
#include "core/text.h"
#include "diagnostics/diagnostics.h"
#include "diagnostics/report_files.h"
#include "diagnostics/session_checkpoint.h"
#include "tests/support/temp_folder.h"

namespace zul::test {

class StartedDiagnostics : public testing::Test {
 protected:
  StartedDiagnostics() {
    DiagnosticsConfig config;
    config.data_root_override = folder_.path();
    config.upload_enabled = false;
    const auto collector = [](const auto&, const auto&) {
      return CollectorStartResult{true, {}, {}};
    };
    InitDiagnosticsIn({folder_ / "app/qorva_updater.exe", folder_ / "data", collector}, config);
  }
  ~StartedDiagnostics() override {
    FinishDiagnosticsSession("test_over");
    GetLogger().Configure("", "");  // Windows does not remove a folder with an open file
  }

  static nlohmann::json ReadJson(const fs::Path& path) {
    return nlohmann::json::parse(ReadFile(path));
  }
  static bool LogHas(std::string_view text) {
    return JoinText(GetLogger().RecentLines(50), "\n").find(text) != std::string::npos;
  }

  const TempFolder folder_;
  const fs::Path crash_ = folder_ / "crashes";
  const fs::Path queue_ = PendingReportsDirectory(crash_);
};

}  // namespace zul::test
