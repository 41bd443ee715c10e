#include "tests/faults/other_process.h"

#include <sys/wait.h>
#include <unistd.h>

namespace zul::test {

void EndThisProcess() {
  ::_exit(kDied);
}

int RunInOtherProcess(Scenario scenario, const FaultPlan& plan, const fs::Path& folder) {
  const pid_t child = ::fork();
  if (child == 0) {
    ArmFaults(plan);
    ::_exit(SampleUpdate::Run(scenario, folder) ? 0 : 1);
  }
  int status = 0;
  if (child == -1 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

void RunIfThisIsTheOther(int /*argc*/, char** /*argv*/) {}

}  // namespace zul::test
