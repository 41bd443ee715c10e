// A process that ends at any step of an update, and the update after it.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/faults/sample_update.h"

namespace zul::test {
namespace {

/// Runs the update in another process, which ends at one step. Returns its exit code, or -1 when it
/// ended in another way.
int ExitCodeOfRun(const SampleUpdate& update, Scenario scenario, const FileCall& step) {
  const pid_t child = ::fork();
  if (child == 0) {
    StartScript(update.folder(), [&step](const FileCall& call) {
      return Verdict{IsSameStep(call, step) ? Fate::kDie : Fate::kProceed};
    });
    ::_exit(SampleUpdate::Run(scenario, update.folder()) ? 0 : 1);
  }
  int status = 0;
  if (child == -1 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

TEST(Deaths, LoseNoFileAndTheNextUpdateSucceeds) {
  for (const Steps& steps : {Steps{"update", Scenario::kUpdate},
                             Steps{"extraction over a tree", Scenario::kReextraction},
                             Steps{"rollback", Scenario::kRollback, 6}}) {
    ForEachStep(steps, [&](const FileCall& step) {
      const SampleUpdate update(steps.scenario);
      ASSERT_EQ(ExitCodeOfRun(update, steps.scenario, step), kDied);
      ASSERT_EQ(update.Damage(), "");

      std::string error;
      ASSERT_TRUE(SampleUpdate::Run(Scenario::kUpdate, update.folder(), &error)) << error;
      ASSERT_EQ(update.Installed(), SampleUpdate::kNew);
      ASSERT_EQ(update.Damage(), "");
    });
  }
}

}  // namespace
}  // namespace zul::test
