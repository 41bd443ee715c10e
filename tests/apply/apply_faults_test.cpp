// What an apply that fails in the middle leaves behind, with each of the faults that a caller may
// ask for.

#include <gtest/gtest.h>

#include "apply/apply.h"
#include "core/system_error.h"
#include "core/text.h"
#include "tests/apply/installation.h"

namespace zul {
namespace {

using test::Installation;
using test::Snapshot;
using test::TakeSnapshot;

/// A retired executable, one file to replace or one to add: the order of the changes is known.
struct Fault {
  const char* name;
  bool staged_file_is_new;
  ApplyFaultInjection faults;
  /// With {t} for the staged file's target, {r} for the retired one's, {b} for the backup root and
  /// {denied} for the system's text of generic error 13; none means that the rollback is complete.
  std::vector<std::string> failures;
  /// After the rollback.
  Snapshot target;
};

const Fault kFaults[] = {
    {"replaced", false, {2, false, false, false}, {}, {{"app.exe", "old"}, {"qorva.exe", "gone"}}},
    {"added", true, {2, false, false, false}, {}, {{"qorva.exe", "gone"}}},
    {"restore",
     false,
     {1, true, false, false},
     {"rollback restore failed: source='{b}/app.exe', target='{t}', reason=filesystem_error, "
      "code=13, message='{denied}' (fault injected)"},
     {{"app.exe", "new"}, {"qorva.exe", "gone"}}},
    {"remove",
     true,
     {2, false, true, false},
     {"rollback remove failed: target='{t}', reason=filesystem_error, code=13, "
      "message='{denied}' (fault injected)",
      "rollback verification failed: newly installed target '{t}' still exists after removal."},
     {{"app.exe", "new"}, {"qorva.exe", "gone"}}},
    {"corruption",
     false,
     {2, false, false, true},
     {"rollback verification hash mismatch: backup='{b}/app.exe', target='{t}'."},
     {{"app.exe", "fault-injected rollback corruption"}, {"qorva.exe", "gone"}}},
    {"both",
     true,
     {2, true, true, false},
     {"rollback remove failed: target='{t}', reason=filesystem_error, code=13, "
      "message='{denied}' (fault injected)",
      "rollback verification failed: newly installed target '{t}' still exists after removal.",
      "rollback restore failed: source='{b}/qorva.exe', target='{r}', reason=filesystem_error, "
      "code=13, message='{denied}' (fault injected)"},
     {{"app.exe", "new"}}},
};

constexpr const char* kRecoveryText =
    "RECOVERY_REQUIRED: update apply failed: {cause} Rollback was incomplete; do not start QORVA "
    "from this folder. Rollback backup was preserved at '{b}'. Run the current QORVA installer to "
    "repair the installation. Rollback failure(s): {failures}";

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

TEST(ApplyFaultsTest, UndoesWhatWasDoneAndSaysWhatItCouldNot) {
  for (const Fault& fault : kFaults) {
    SCOPED_TRACE(fault.name);
    Installation installation;
    installation.Install("qorva.exe", "gone");
    if (!fault.staged_file_is_new) installation.Install("app.exe", "old");
    installation.Stage("app.exe", "new");

    EXPECT_FALSE(installation.Apply(fault.faults));

    const std::string cause = "fault injection: apply failed after 2 successful replacement(s).";
    const std::string backup_root = PathToUtf8(installation.backup_root);
    std::string message = cause + " Rollback completed and every restored target was verified.";
    std::string last_event = "rollback_ok backup_root=" + backup_root + " record_count=2";
    if (!fault.failures.empty()) {
      std::string failures = JoinText(fault.failures, " | ");
      failures = Replaced(failures, "{t}", PathToUtf8(installation.target_root / "app.exe"));
      failures = Replaced(failures, "{r}", PathToUtf8(installation.target_root / "qorva.exe"));
      for (const char* name : {"app.exe", "qorva.exe"}) {
        failures = Replaced(failures, std::string("{b}/") + name,
                            PathToUtf8(installation.backup_root / name));
      }
      failures = Replaced(failures, "{denied}",
                          SystemErrorText(std::make_error_code(std::errc::permission_denied)));
      message = kRecoveryText;
      for (const auto& [place, text] :
           {std::pair<const char*, const std::string&>{"{cause}", cause},
            {"{b}", backup_root},
            {"{failures}", failures}}) {
        message = Replaced(message, place, text);
      }
      last_event = "rollback_recovery_required backup_root=" + backup_root + " error=" + message;
      last_event += " failure_count=" + std::to_string(fault.failures.size());
    }
    EXPECT_EQ(installation.error, message);
    EXPECT_EQ(installation.outcome.message, message);
    EXPECT_EQ(installation.outcome.kind, fault.failures.empty()
                                             ? ApplyOutcomeKind::kRolledBack
                                             : ApplyOutcomeKind::kRecoveryRequired);
    EXPECT_EQ(installation.outcome.backup_root, backup_root);
    EXPECT_EQ(TakeSnapshot(installation.target_root), fault.target);
    Snapshot backups{{"qorva.exe", "gone"}};
    if (!fault.staged_file_is_new) backups["app.exe"] = "old";
    EXPECT_EQ(TakeSnapshot(installation.backup_root), backups);
    EXPECT_EQ(installation.Events(),
              (std::vector<std::string>{
                  "retired_install_executable_removed path=qorva.exe rollback=protected",
                  "rollback_start backup_root=" + backup_root + " record_count=2", last_event}));
  }
}

// The old state comes back from every point at which the apply can stop.
TEST(ApplyFaultsTest, RollsBackFromEveryStep) {
  Installation installation;
  Snapshot before;
  for (const char* name : {"qorva.exe", "zul_rip.exe", "a.dll", "data/b.dll", "data/deep/c.bin"}) {
    before[name] = std::string("old ") + name;
    installation.Install(name, before[name]);
  }
  before["data/"] = before["data/deep/"] = "";
  for (const char* name : {"a.dll", "data/b.dll", "data/deep/c.bin", "new.dll", "data/new.bin"}) {
    installation.Stage(name, std::string("new ") + name);
  }
  for (std::uint32_t step = 1; step <= 7; ++step) {
    SCOPED_TRACE(step);
    ApplyFaultInjection faults;
    faults.fail_after_replacements = step;
    EXPECT_FALSE(installation.Apply(faults));
    EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kRolledBack) << installation.error;
    EXPECT_EQ(TakeSnapshot(installation.target_root), before);
  }
  ApplyFaultInjection never_reached;
  never_reached.fail_after_replacements = 8;
  EXPECT_TRUE(installation.Apply(never_reached)) << installation.error;
}

}  // namespace
}  // namespace zul
