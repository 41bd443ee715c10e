// Failures and deaths at every step are in tests/faults, locked files in tests/rig/test_apply.py.

#include "apply/apply.h"

#include <gtest/gtest.h>

#include "core/process_environment.h"
#include "core/system_error.h"
#include "tests/apply/installation.h"

namespace zul {
namespace {

using test::Files;
using test::FilesBelow;
using test::Installation;

TEST(Apply, InstallsTheStagedTreeAndRemovesRetiredExecutables) {
  Installation installation;
  const std::string big(3'000'001, 'x');
  installation.Install("data/a.icc", "old profile, longer than the new one");
  installation.Install("data/zul_rip.exe", "not at the top level");
  installation.Install("qorva.exe", "retired, but staged again");
  installation.Install("zul_rip.exe", "retired");
  installation.Stage("data/a.icc", std::string("n\0w", 3));
  installation.Stage("p\xC5\x99\xC3\xADklad/empty.bin", "");
  installation.Stage("qorva.exe", big);
  std::error_code ec;
  ASSERT_TRUE(fs::CreateDirectories(installation.staged_root / "nothing/in here", ec));
  EXPECT_TRUE(installation.Apply()) << installation.error;
  EXPECT_EQ(FilesBelow(installation.target_root),
            (Files{{"data/a.icc", std::string("n\0w", 3)},
                   {"data/zul_rip.exe", "not at the top level"},
                   {"p\xC5\x99\xC3\xADklad/empty.bin", ""},
                   {"qorva.exe", big}}));
  EXPECT_FALSE(test::Exists(installation.target_root / "nothing"));
  EXPECT_FALSE(test::Exists(installation.backup_root));
  EXPECT_EQ(installation.trace.Events(),
            std::vector<std::string>{
                "retired_install_executable_removed path=zul_rip.exe rollback=protected"});
  EXPECT_EQ(installation.error + installation.outcome.message + installation.outcome.backup_root,
            "");
}

TEST(Apply, NeverReplacesTheRunningExecutable) {
  Installation installation;
  const fs::Path own = CurrentExecutablePath(260);
  std::error_code ec;
  const std::uint64_t size = fs::SizeOf(own, ec);
  test::WriteFile(installation.staged_root / own.filename(), "another updater");
  const ApplyFaultInjection undo_if_replaced{.fail_after_replacements = 1};
  std::string error;
  EXPECT_TRUE(ApplyStagedUpdate(installation.staged_root, own.parent_path(), 0, nullptr, false,
                                &error, nullptr, &undo_if_replaced))
      << error;
  EXPECT_EQ(fs::SizeOf(own, ec), size);
}

// A folder cannot be opened exclusively, as a library that another process holds cannot.
TEST(Apply, ProbesEachProgramAndLibraryBeforeAnyChange) {
  Installation installation;
  installation.Install("qorva.exe", "retired");
  installation.Install("ENGINE.DLL/inside.txt", "");
  installation.Stage("ENGINE.DLL", "new");
  EXPECT_FALSE(installation.Apply());
  EXPECT_TRUE(installation.error.starts_with("pre-apply lock probe failed: target='"));
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kFailedBeforeChange);
  EXPECT_EQ(installation.outcome.backup_root, "");
  EXPECT_TRUE(test::Exists(installation.target_root / "qorva.exe"));
}

// Two retired executables are removed, a file is added, and then the apply fails.
TEST(Apply, NamesEachFileThatCouldNotBeRestored) {
  Installation installation;
  installation.Install("qorva.exe", "first");
  installation.Install("zul_rip.exe", "second");
  installation.Stage("app.exe", "new");
  test::WriteFile(installation.backup_root / "app.exe", "of an earlier failed run");
  EXPECT_FALSE(installation.Apply({.fail_after_replacements = 3,
                                   .fail_first_restore = true,
                                   .fail_first_remove = true,
                                   .corrupt_first_restore = true}));
  const auto quoted = [](const fs::Path& path) { return "'" + PathToUtf8(path) + "'"; };
  const auto target = [&](const char* name) { return quoted(installation.target_root / name); };
  const auto backup = [&](const char* name) { return quoted(installation.backup_root / name); };
  const std::string injected = ", reason=filesystem_error, code=13, message='" +
                               SystemErrorText(std::make_error_code(std::errc::permission_denied)) +
                               "' (fault injected)";
  EXPECT_EQ(installation.error,
            "RECOVERY_REQUIRED: update apply failed: fault injection: apply failed after 3 "
            "successful replacement(s). Rollback was incomplete; do not start QORVA from this "
            "folder. Rollback backup was preserved at " +
                quoted(installation.backup_root) +
                ". Run the current QORVA installer to repair the installation. " +
                "Rollback failure(s): rollback remove failed: target=" + target("app.exe") +
                injected + " | rollback verification failed: newly installed target " +
                target("app.exe") + " still exists after removal. | rollback restore failed: " +
                "source=" + backup("zul_rip.exe") + ", target=" + target("zul_rip.exe") + injected +
                " | rollback verification hash mismatch: backup=" + backup("qorva.exe") +
                ", target=" + target("qorva.exe") + ".");
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kRecoveryRequired);
  EXPECT_EQ(FilesBelow(installation.target_root),
            (Files{{"app.exe", "new"}, {"qorva.exe", "fault-injected rollback corruption"}}));
  EXPECT_EQ(FilesBelow(installation.backup_root),
            (Files{{"qorva.exe", "first"}, {"zul_rip.exe", "second"}}));
}

}  // namespace
}  // namespace zul
