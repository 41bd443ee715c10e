// Failures and deaths at every step are in tests/faults, held files in tests/rig/test_apply.py.

#include "apply/apply.h"

#include <gtest/gtest.h>

#include "core/process_environment.h"
#include "core/system_error.h"
#include "tests/apply/installation.h"

namespace zul {
namespace {

using test::Installation;
using test::Snapshot;
using test::TakeSnapshot;

TEST(ApplyTest, InstallsTheStagedTreeAndRetiresOldExecutables) {
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
  test::WriteFile(installation.backup_root / "app.exe", "of an earlier failed run");
  EXPECT_TRUE(installation.Apply()) << installation.error;
  EXPECT_EQ(TakeSnapshot(installation.target_root),
            (Snapshot{{"data/", ""},
                      {"data/a.icc", std::string("n\0w", 3)},
                      {"data/zul_rip.exe", "not at the top level"},
                      {"p\xC5\x99\xC3\xADklad/", ""},
                      {"p\xC5\x99\xC3\xADklad/empty.bin", ""},
                      {"qorva.exe", big}}));
  EXPECT_FALSE(test::Exists(installation.backup_root));
  EXPECT_EQ(installation.trace.Events(),
            std::vector<std::string>{
                "retired_install_executable_removed path=zul_rip.exe rollback=protected"});
  EXPECT_EQ(installation.error + installation.outcome.message + installation.outcome.backup_root,
            "");
}

// With the record of a retired executable there is something to undo, without it there is not.
TEST(ApplyTest, UndoesWhatWasDone) {
  Installation installation;
  installation.Install("data/inside.txt", "kept");
  installation.Stage("data", "cannot take a folder's place");
  for (const bool retired : {false, true}) {
    if (retired) installation.Install("qorva.exe", "retired");
    const Snapshot before = TakeSnapshot(installation.target_root);
    EXPECT_FALSE(installation.Apply());
    EXPECT_TRUE(installation.error.starts_with("rollback backup copy failed: source='"));
    EXPECT_EQ(installation.outcome.kind,
              retired ? ApplyOutcomeKind::kRolledBack : ApplyOutcomeKind::kFailedBeforeChange);
    EXPECT_EQ(TakeSnapshot(installation.target_root), before);
    EXPECT_EQ(installation.trace.Events().empty(), !retired);
  }
}

TEST(ApplyTest, PassesOverTheRunningExecutable) {
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

// A retired executable goes, one file is replaced or added, and the apply fails.
TEST(ApplyTest, SaysWhatItCouldNotUndo) {
  Installation installation;
  installation.Stage("app.exe", "new");
  const auto in_quotes = [](const fs::Path& path) { return "'" + PathToUtf8(path) + "'"; };
  const std::string target = in_quotes(installation.target_root / "app.exe");
  const std::string backup = in_quotes(installation.backup_root / "app.exe");
  const std::string injected = ", reason=filesystem_error, code=13, message='" +
                               SystemErrorText(std::make_error_code(std::errc::permission_denied)) +
                               "' (fault injected)";
  const struct {
    bool is_added;
    ApplyFaultInjection faults;
    std::string failures;
    Snapshot left;
  } cases[] = {
      {false,
       {2, false, false, true},
       "rollback verification hash mismatch: backup=" + backup + ", target=" + target + ".",
       {{"app.exe", "fault-injected rollback corruption"}, {"qorva.exe", "gone"}}},
      {true,
       {2, true, true, false},
       "rollback remove failed: target=" + target + injected +
           " | rollback verification failed: newly installed target " + target +
           " still exists after removal. | rollback restore failed: source=" +
           in_quotes(installation.backup_root / "qorva.exe") +
           ", target=" + in_quotes(installation.target_root / "qorva.exe") + injected,
       {{"app.exe", "new"}}},
  };
  for (const auto& c : cases) {
    installation.Install("qorva.exe", "gone");
    installation.Install("app.exe", "old");
    std::error_code ec;
    if (c.is_added) fs::Remove(installation.target_root / "app.exe", ec);
    EXPECT_FALSE(installation.Apply(c.faults));
    EXPECT_TRUE(installation.error.starts_with(
        "RECOVERY_REQUIRED: update apply failed: fault injection: apply failed after 2 successful "
        "replacement(s). Rollback was incomplete; do not start QORVA from this folder. "))
        << installation.error;
    EXPECT_TRUE(installation.error.ends_with(" Rollback failure(s): " + c.failures))
        << installation.error;
    EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kRecoveryRequired);
    EXPECT_EQ(TakeSnapshot(installation.target_root), c.left);
    EXPECT_EQ(test::ReadFile(installation.backup_root / "qorva.exe"), "gone");
  }
}

}  // namespace
}  // namespace zul
