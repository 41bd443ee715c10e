#pragma once

// Diagnostics of this process for one test, in a folder of their own, without observer and upload.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "core/logger.h"
#include "core/text.h"
#include "diagnostics/diagnostics.h"
#include "diagnostics/report_manifest.h"
#include "diagnostics/session_checkpoint.h"
#include "tests/support/temp_folder.h"

namespace zul::test {

class StartedDiagnostics : public testing::Test {
 protected:
  StartedDiagnostics() {
    DiagnosticsConfig config;
    config.data_root_override = folder_.path();
    config.upload_enabled = false;
    const auto no_collector = [](const auto&, const auto&) {
      return CollectorStartResult{false, {}, "collector_launch_failed"};
    };
    const DiagnosticsState state = InitDiagnosticsIn(
        {folder_ / "app/qorva_updater.exe", folder_ / "data", no_collector}, config);
    crash_ = PathFromUtf8(state.crash_directory).value();
  }
  ~StartedDiagnostics() override {
    FinishDiagnosticsSession("test_over");
    GetLogger().Configure("", "");  // the folder must not go while the log is open in it
  }

  fs::Path queue() const { return PendingReportsDirectory(crash_); }
  static nlohmann::json ReadJson(const fs::Path& path) {
    return nlohmann::json::parse(ReadFile(path));
  }
  static bool LogHas(std::string_view text) {
    return JoinText(GetLogger().RecentLines(50), "\n").find(text) != std::string::npos;
  }

  const TempFolder folder_;
  fs::Path crash_;
};

}  // namespace zul::test
