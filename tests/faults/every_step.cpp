#include "tests/faults/every_step.h"

#include "core/process_environment.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"

namespace zul::test {

std::vector<FileCall> CallsOf(Scenario scenario) {
  const SampleUpdate update(scenario);
  ArmFaults({});
  (void)update.Run();
  return DisarmFaults();
}

unsigned StepBehind(const std::vector<FileCall>& calls, unsigned replacements) {
  unsigned step = 1;
  for (unsigned i = 0; i < calls.size() && replacements > 0; ++i) {
    if (calls[i].name != "MoveReplacing") continue;
    --replacements;
    step = i + 2;
  }
  return step;
}

std::string Describe(const std::vector<FileCall>& calls, unsigned at) {
  const FileCall& call = calls.at(at - 1);
  return "step " + std::to_string(at) + " of " + std::to_string(calls.size()) + ": " +
         std::string(call.name) + " " + PathToUtf8(call.subject.filename());
}

bool TriesEverything() {
  return GetEnvironmentPath("QORVA_FAULTS") == "all";
}

unsigned StepWidth() {
  constexpr unsigned kUnderWine = 17;
  return kOnWindows && !TriesEverything() ? kUnderWine : 1;
}

}  // namespace zul::test
