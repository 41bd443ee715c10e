// Failures and deaths at every step are in tests/faults, locked files in tests/rig/test_apply.py.

#include "apply/apply.h"

#include <gtest/gtest.h>

#include "core/process_environment.h"
#include "core/system_error.h"
#include "tests/apply/installation.h"
#include "tests/ui/fake_screen.h"

namespace zul {
namespace {

using test::Files;
using test::FilesBelow;
using test::Installation;

TEST(Apply, InstallsTheStagedTreeAndRemovesRetiredExecutables) {
  Installation app;
  const std::string big(3'000'001, 'x');
  app.Install("data/a.icc", "old profile, longer than the new one");
  app.Install("data/zul_rip.exe", "not at the top level");
  app.Install("qorva.exe", "retired, but staged again");
  app.Install("zul_rip.exe", "retired");
  app.Stage("data/a.icc", std::string("n\0w", 3));
  app.Stage("p\xC5\x99\xC3\xADklad/empty.bin", "");
  app.Stage("qorva.exe", big);
  std::error_code ec;
  ASSERT_TRUE(fs::CreateDirectories(app.staged_root / "nothing/in here", ec));
  EXPECT_TRUE(app.Apply()) << app.error;
  EXPECT_EQ(FilesBelow(app.target_root), (Files{{"data/a.icc", std::string("n\0w", 3)},
                                                {"data/zul_rip.exe", "not at the top level"},
                                                {"p\xC5\x99\xC3\xADklad/empty.bin", ""},
                                                {"qorva.exe", big}}));
  EXPECT_FALSE(test::Exists(app.target_root / "nothing"));
  EXPECT_FALSE(test::Exists(app.backup_root));
  EXPECT_EQ(JoinText(app.trace.Events(), "\n"),
            "retired_install_executable_removed path=zul_rip.exe rollback=protected");
  EXPECT_EQ(app.error + app.outcome.message + app.outcome.backup_root, "");
}

TEST(Apply, NeverReplacesTheRunningExecutable) {
  Installation app;
  const fs::Path own = CurrentExecutablePath(260);
  std::error_code ec;
  const std::uint64_t size = fs::SizeOf(own, ec);
  test::WriteFile(app.staged_root / own.filename(), "another updater");
  const ApplyFaultInjection undo_if_replaced{.fail_after_replacements = 1};
  std::string error;
  EXPECT_TRUE(ApplyStagedUpdate(app.staged_root, own.parent_path(), 0, nullptr, false, &error,
                                nullptr, &undo_if_replaced))
      << error;
  EXPECT_EQ(fs::SizeOf(own, ec), size);
}

// The backup folder would take the place of the staged tree.
TEST(Apply, RefusesAStagedTreeWithTheNameOfTheBackupFolder) {
  Installation app;
  const fs::Path staged_root = app.folder.path() / "work" / "Rollback_Backup";
  test::WriteFile(staged_root / "app.exe", "new");
  app.Install("app.exe", "old");
  EXPECT_FALSE(ApplyStagedUpdate(staged_root, app.target_root, 0, nullptr, false, &app.error,
                                 &app.outcome, nullptr));
  EXPECT_EQ(app.outcome.kind, ApplyOutcomeKind::kFailedBeforeChange);
  EXPECT_NE(app.error.find("'Rollback_Backup'"), std::string::npos) << app.error;
  EXPECT_TRUE(test::Exists(staged_root / "app.exe"));
}

// A folder cannot be opened exclusively, as a library that another process holds cannot.
TEST(Apply, ProbesEachProgramAndLibraryBeforeAnyChange) {
  Installation app;
  app.Install("qorva.exe", "retired");
  app.Install("ENGINE.DLL/inside.txt", "");
  app.Stage("ENGINE.DLL", "new");
  EXPECT_FALSE(app.Apply());
  EXPECT_TRUE(app.error.starts_with("pre-apply lock probe failed: target='"));
  EXPECT_EQ(app.outcome.kind, ApplyOutcomeKind::kFailedBeforeChange);
  EXPECT_EQ(app.outcome.backup_root, "");
  EXPECT_TRUE(test::Exists(app.target_root / "qorva.exe"));
}

TEST(Apply, RefusesAFolderUnderTheNameOfARetiredExecutable) {
  Installation installation;
  installation.Install("zul_rip.exe/inside.txt", "");
  installation.Stage("app.exe", "new");
  EXPECT_FALSE(installation.Apply());
  EXPECT_EQ(installation.error, "Retired executable target is not a regular root-level file: '" +
                                    PathToUtf8(installation.target_root / "zul_rip.exe") + "'.");
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kFailedBeforeChange);
}

TEST(Apply, RefusesTheEndOfTheSessionFromTheFirstChangeToTheEnd) {
  for (const std::uint32_t fail_after : {0U, 2U}) {  // the second apply is rolled back
    Installation app;
    for (const char* name : {"1.txt", "2.txt", "3.txt"}) {
      app.Install(name, "old");
      app.Stage(name, "new");
    }
    const Files old_files = FilesBelow(app.target_root);
    int unchanged = 0, changed = 0;
    test::FakeScreen screen;
    UpdateProgressWindow window(std::make_unique<test::FakeSurface>(screen));
    screen.on_pump = [&] {
      const bool first_look = unchanged + changed == 0;
      ++(FilesBelow(app.target_root) == old_files ? unchanged : changed);
      if (first_look || changed > 0) {
        EXPECT_EQ(window.changes_in_progress(), !first_look);
      }
    };
    EXPECT_EQ(app.Apply({.fail_after_replacements = fail_after}, &window), fail_after == 0);
    EXPECT_GT(changed, 1);
    EXPECT_FALSE(window.changes_in_progress());
  }
}

// Two retired executables are removed, a file is added, and then the apply fails.
TEST(Apply, NamesEachFileThatCouldNotBeRestored) {
  Installation app;
  app.Install("qorva.exe", "first");
  app.Install("zul_rip.exe", "second");
  app.Stage("app.exe", "new");
  test::WriteFile(app.backup_root / "app.exe", "of an earlier failed run");
  EXPECT_FALSE(app.Apply({.fail_after_replacements = 3,
                          .fail_first_restore = true,
                          .fail_first_remove = true,
                          .corrupt_first_restore = true}));
  const auto quoted = [](const fs::Path& path) { return "'" + PathToUtf8(path) + "'"; };
  const auto target = [&](const char* name) { return quoted(app.target_root / name); };
  const auto backup = [&](const char* name) { return quoted(app.backup_root / name); };
  const std::string injected = ", reason=filesystem_error, code=13, message='" +
                               SystemErrorText(std::make_error_code(std::errc::permission_denied)) +
                               "' (fault injected)";
  EXPECT_EQ(app.error,
            "RECOVERY_REQUIRED: update apply failed: fault injection: apply failed after 3 "
            "successful replacement(s). Rollback was incomplete; do not start QORVA from this "
            "folder. Rollback backup was preserved at " +
                quoted(app.backup_root) +
                ". Run the current QORVA installer to repair the installation. " +
                "Rollback failure(s): rollback remove failed: target=" + target("app.exe") +
                injected + " | rollback verification failed: newly installed target " +
                target("app.exe") + " still exists after removal. | rollback restore failed: " +
                "source=" + backup("zul_rip.exe") + ", target=" + target("zul_rip.exe") + injected +
                " | rollback verification hash mismatch: backup=" + backup("qorva.exe") +
                ", target=" + target("qorva.exe") + ".");
  EXPECT_EQ(app.outcome.kind, ApplyOutcomeKind::kRecoveryRequired);
  EXPECT_EQ(FilesBelow(app.target_root),
            (Files{{"app.exe", "new"}, {"qorva.exe", "fault-injected rollback corruption"}}));
  EXPECT_EQ(FilesBelow(app.backup_root),
            (Files{{"qorva.exe", "first"}, {"zul_rip.exe", "second"}}));
}

}  // namespace
}  // namespace zul
