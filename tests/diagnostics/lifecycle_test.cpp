// The start of diagnostics: which folders it chooses, what it says, and that nothing stops it.

#include <stdexcept>

#include "tests/diagnostics/started_diagnostics.h"

namespace zul {
namespace {

using Diagnostics = test::StartedDiagnostics;

TEST_F(Diagnostics, ChoosesFoldersThatCanBeWrittenAndGoesOnWithout) {
  const struct {
    const char* scene;
    const char* blocked;  ///< a file where a folder is wanted
    const char* override_root;
    const char* logs;
    const char* crashes;
    std::string collector_error;
    const char* warning;
  } cases[] = {
      {"1", "", "", "1/app/logs", "1/data/QORVA/crashes", "collector_executable_missing",
       "unavailable: collector_executable_missing. Process exit cause and stack capture are not "
       "guaranteed."},
      {"2", "app/logs", "", "2/data/QORVA/logs", "2/data/QORVA/crashes", "", ""},
      {"3", "app/logs/.write_probe/x", "", "3/data/QORVA/logs", "3/data/QORVA/crashes", "", ""},
      {"4", "data/QORVA", "", "4/app/logs", "4/app/crashes", "collector_initialization_failed",
       "unavailable: collector initialization failed."},
      {"5", "", "5/own", "5/own/logs", "5/own/crashes", "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.scene);
    const auto absolute = [&](const char* path) { return (folder_ / path).make_preferred(); };
    const fs::Path scene = absolute(c.scene);
    if (*c.blocked != '\0') test::WriteFile(scene / c.blocked, "");
    const auto collector = [&](const fs::Path& crashes, const fs::Path& install) {
      EXPECT_EQ(PathToUtf8(crashes), GetDiagnosticsState().crash_directory);
      EXPECT_EQ(install, scene / "app");
      if (c.collector_error == "collector_initialization_failed") throw std::runtime_error("no");
      return CollectorStartResult{c.collector_error.empty(), "", c.collector_error};
    };
    DiagnosticsConfig config;
    if (*c.override_root != '\0') config.data_root_override = absolute(c.override_root);
    const DiagnosticsState state =
        InitDiagnosticsIn({scene / "app" / "x.exe", scene / "data", collector}, config);
    EXPECT_EQ(PathFromUtf8(state.logs_directory), absolute(c.logs));
    EXPECT_EQ(PathFromUtf8(state.crash_directory), absolute(c.crashes));
    EXPECT_EQ(state.compact_collector_error, c.collector_error);
    const bool in_installation = c.logs == std::string(c.scene) + "/app/logs";
    EXPECT_TRUE(LogHas("Diagnostics initialized: log='" + state.log_file_path + "', crash_dir='" +
                       state.crash_directory +
                       "', install_dir_logging=" + (in_installation ? "true" : "false")));
    EXPECT_TRUE(LogHas(c.warning));
    EXPECT_EQ(test::ListTree(scene).find(".write_probe\n"), std::string::npos);
  }
}

}  // namespace
}  // namespace zul
