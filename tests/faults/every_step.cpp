#include "tests/faults/every_step.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "core/process_environment.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"

namespace zul::test {

bool TriesEverything() {
  return GetEnvironmentPath("QORVA_FAULTS") == "all";
}

void ForEachStep(const char* name, Scenario scenario, unsigned from, unsigned to,
                 const std::function<void(const std::vector<FileCall>&, unsigned)>& test) {
  SCOPED_TRACE(name);
  const SampleUpdate update(scenario);
  ArmFaults({});
  (void)SampleUpdate::Run(scenario, update.folder());
  const std::vector<FileCall> calls = DisarmFaults();
  const unsigned width = kOnWindows && !TriesEverything() ? 17 : 1;
  std::printf("%s: %zu steps\n", name, calls.size() / width);
  unsigned replaced = 0;
  for (unsigned at = 1; at <= calls.size() && !testing::Test::HasFatalFailure(); ++at) {
    const FileCall& call = calls[at - 1];
    if (replaced >= from && replaced < to && at % width == 0) {
      SCOPED_TRACE("step " + std::to_string(at) + " of " + std::to_string(calls.size()) + ": " +
                   std::string(call.name) + " " + PathToUtf8(call.subject.filename()));
      test(calls, at);
    }
    if (call.name == "MoveReplacing") ++replaced;
  }
}

}  // namespace zul::test
