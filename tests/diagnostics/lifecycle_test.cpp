// The start of diagnostics: which folders it chooses, and what it logs.

#include <stdexcept>

#include "tests/diagnostics/started_diagnostics.h"

namespace zul {
namespace {

using Diagnostics = test::StartedDiagnostics;

TEST_F(Diagnostics, StartsInFoldersThatItCanWriteTo) {
  const std::string throws = "collector_initialization_failed";
  const struct {
    const char* blocker;  ///< a file in the way of a folder
    const char* override_root;
    const char* logs;
    const char* crashes;
    std::string collector_error;
    const char* warning;
  } cases[] = {
      {"", "", "app/logs", "data/QORVA/crashes", "collector_executable_missing",
       "unavailable: collector_executable_missing. Process exit cause and stack capture are not "
       "guaranteed."},
      {"app/logs", "", "data/QORVA/logs", "data/QORVA/crashes", "", ""},
      {"app/logs/.write_probe/x", "", "data/QORVA/logs", "data/QORVA/crashes", "", ""},
      {"data/QORVA", "", "app/logs", "app/crashes", throws,
       "unavailable: collector initialization failed."},
      {"", "own", "own/logs", "own/crashes", "", ""},
  };
  int number = 0;
  for (const auto& c : cases) {
    const fs::Path scene = folder_ / std::to_string(++number);
    SCOPED_TRACE(number);
    const auto absolute = [&](const char* path) { return (scene / path).make_preferred(); };
    if (*c.blocker != '\0') test::WriteFile(scene / c.blocker, "");
    const auto collector = [&](const fs::Path& crashes, const fs::Path& install) {
      EXPECT_EQ(PathToUtf8(crashes), GetDiagnosticsState().crash_directory);
      EXPECT_EQ(install, scene / "app");
      if (c.collector_error == throws) throw std::runtime_error("no");
      return CollectorStartResult{c.collector_error.empty(), "", c.collector_error};
    };
    DiagnosticsConfig config;
    if (*c.override_root != '\0') config.data_root_override = absolute(c.override_root);
    const DiagnosticsState state =
        InitDiagnosticsIn({scene / "app" / "x.exe", scene / "data", collector}, config);
    EXPECT_EQ(PathFromUtf8(state.logs_directory), absolute(c.logs));
    EXPECT_EQ(PathFromUtf8(state.crash_directory), absolute(c.crashes));
    EXPECT_EQ(state.compact_collector_error, c.collector_error);
    EXPECT_TRUE(LogHas("Diagnostics initialized: log='" + state.log_file_path + "', crash_dir='" +
                       state.crash_directory + "', install_dir_logging=" +
                       (c.logs == std::string("app/logs") ? "true" : "false")));
    EXPECT_TRUE(LogHas(c.warning));
    EXPECT_EQ(test::ListTree(scene).find(".write_probe\n"), std::string::npos);
  }
}

}  // namespace
}  // namespace zul
