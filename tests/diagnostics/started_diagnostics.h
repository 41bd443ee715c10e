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
  StartedDiagnostics() { StartIn(folder_.path()); }
  ~StartedDiagnostics() override {
    FinishDiagnosticsSession("test_over");
    GetLogger().Configure("", "");  // the folder must not go while the log is open in it
  }

  void StartIn(const fs::Path& data_root) {
    DiagnosticsConfig config;
    config.data_root_override = data_root;
    config.upload_enabled = false;
    const DiagnosticsSurroundings surroundings = {
        .executable = data_root / "app/qorva_updater.exe",
        .application_data = {},
        .start_collector = [](const auto&, const auto&) {
          return CollectorStartResult{false, {}, "collector_launch_failed"};
        }};
    crash_ = PathFromUtf8(InitDiagnosticsIn(surroundings, config).crash_directory).value();
  }

  [[nodiscard]] static nlohmann::json ReadJson(const fs::Path& path) {
    return nlohmann::json::parse(ReadFile(path));
  }

  const TempFolder folder_;
  fs::Path crash_;
};

}  // namespace zul::test
