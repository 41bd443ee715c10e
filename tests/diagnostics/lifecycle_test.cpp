// The start of diagnostics: which folders it chooses, what it says, and that nothing stops it.

#include <gtest/gtest.h>

#include <stdexcept>

#include "core/logger.h"
#include "core/text.h"
#include "diagnostics/diagnostic_names.h"
#include "diagnostics/diagnostics.h"
#include "diagnostics/session_checkpoint.h"
#include "tests/support/file_tricks.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::WriteFile;

TEST(DiagnosticNames, StayWithinTheirBytesAndCharacters) {
  const std::string z = "\u017e";
  EXPECT_EQ(SanitizeIdentifier(""), "diagnostics");
  EXPECT_EQ(SanitizeIdentifier("a b/" + z + ".Z-_9"), "a_b___.Z-_9");
  EXPECT_EQ(ShortenText("abc", 3), "abc");
  EXPECT_EQ(ShortenText("abcd", 3), "abc...");
  EXPECT_EQ(CutText("a" + z, 2), "a");
  EXPECT_EQ(CutText("\x80\x80\x80\x80\x80", 4), "\x80\x80\x80\x80");
  const std::string id = MakeDiagnosticId("");
  EXPECT_TRUE(id.starts_with("report_20")) << id;
  EXPECT_NE(id, MakeDiagnosticId(""));
}

TEST(DiagnosticsStart, ChoosesFoldersThatCanBeWrittenAndGoesOnWithout) {
  const CollectorStartResult ready{true, "session", ""};
  const auto fails = [](std::string word) { return CollectorStartResult{false, "", word}; };
  constexpr const char* kNoObserver =
      "Compact crash diagnostics unavailable: collector_executable_missing. Process exit cause and "
      "stack capture are not guaranteed.";
  const struct {
    const char* what;
    const char* blocked;  // names of files where folders are wanted
    const char* data;
    const char* override_root;
    CollectorStartResult collector;
    const char* logs;
    const char* crashes;
    bool in_installation;
    const char* warning;
  } cases[] = {
      {"installed", "", "data", "", ready, "app/logs", "data/QORVA/crashes", true, ""},
      {"read-only installation", "app/logs", "data", "", ready, "data/QORVA/logs",
       "data/QORVA/crashes", false, ""},
      {"probe cannot be opened", "app/logs/.write_probe/x", "data", "", ready, "data/QORVA/logs",
       "data/QORVA/crashes", false, ""},
      {"read-only profile", "data/QORVA", "data", "", ready, "app/logs", "app/crashes", true, ""},
      {"override", "", "data", "own", ready, "own/logs", "own/crashes", false, ""},
      {"override without logs", "own/logs", "", "own", ready, "own/logs", "own/crashes", false, ""},
      {"no observer", "", "data", "", fails("collector_executable_missing"), "app/logs",
       "data/QORVA/crashes", true, kNoObserver},
      {"start throws", "", "data", "", fails("throw"), "app/logs", "data/QORVA/crashes", true,
       "Compact crash diagnostics unavailable: collector initialization failed."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const test::TempFolder folder;
    const auto absolute = [&](const char* relative) {
      return *relative == '\0' ? fs::Path() : fs::Path(folder / relative).make_preferred();
    };
    if (*c.blocked != '\0') WriteFile(absolute(c.blocked), "");
    fs::Path observed_install;
    const DiagnosticsSurroundings surroundings = {
        .executable = absolute("app//qorva_updater.exe"),
        .application_data = absolute(c.data),
        .start_collector = [&](const fs::Path& crashes, const fs::Path& install) {
          EXPECT_EQ(PathToUtf8(crashes), GetDiagnosticsState().crash_directory);
          observed_install = install;
          if (c.collector.failure_reason == "throw") throw std::runtime_error("no");
          return c.collector;
        }};
    DiagnosticsConfig config;
    config.data_root_override = absolute(c.override_root);
    config.log_base_name = "";
    const DiagnosticsState state = InitDiagnosticsIn(surroundings, config);
    EXPECT_EQ(observed_install, absolute("app"));
    EXPECT_EQ(PathFromUtf8(state.logs_directory), absolute(c.logs));
    EXPECT_EQ(PathFromUtf8(state.crash_directory), absolute(c.crashes));
    EXPECT_EQ(state.install_dir_logging, c.in_installation);
    EXPECT_EQ(state.compact_collector_ready, c.collector.ready);
    EXPECT_EQ(GetDiagnosticsState().compact_collector_error, state.compact_collector_error);
    const bool logs = std::string(c.blocked) != "own/logs";
    EXPECT_EQ(state.log_file_path.find("qorva_20") != std::string::npos, logs);
    std::string lines;
    for (const std::string& line : GetLogger().RecentLines(*c.warning == '\0' ? 1 : 2)) {
      lines += line + "\n";
    }
    EXPECT_NE(lines.find("Diagnostics initialized: log='" + state.log_file_path + "', crash_dir='" +
                         state.crash_directory +
                         "', install_dir_logging=" + (c.in_installation ? "true" : "false") + "\n"),
              std::string::npos)
        << lines;
    EXPECT_NE(lines.find(c.warning), std::string::npos) << lines;
    EXPECT_EQ(test::ListTree(folder.path()).find(".write_probe\n"), std::string::npos);
    ShutdownDiagnostics();  // without a session: nothing to end, nothing in the way
    GetLogger().Configure("", "");
  }
}

TEST(DiagnosticsStart, CountsAFolderWhereAFileOpensAsUsable) {
  const test::TempFolder folder;
  // Under Wine the removal of a link removes what it leads to.
  if (test::kOnWindows) GTEST_SKIP() << "no device that refuses what is written";
  WriteFile(folder / "app/logs/x", "");
  ASSERT_TRUE(test::MakeLink("/dev/full", folder / "app/logs/.write_probe"));
  const DiagnosticsState state = InitDiagnosticsIn(
      {.executable = folder / "app/x.exe",
       .application_data = folder / "data",
       .start_collector = [](const auto&, const auto&) { return CollectorStartResult{}; }},
      {});
  EXPECT_TRUE(state.install_dir_logging);
  EXPECT_FALSE(test::Exists(folder / "app/logs/.write_probe"));
  GetLogger().Configure("", "");
}

}  // namespace
}  // namespace zul
