#include "tests/faults/every_step.h"

#include <gtest/gtest.h>

#include <string>

#include "core/process_environment.h"
#include "core/text.h"
#include "tests/support/file_tricks.h"

namespace zul::test {

bool TriesEverything() {
  return GetEnvironmentPath("QORVA_FAULTS") == "all";
}

void ForEachStep(const Steps& steps, const std::function<void(const FileCall& step)>& test) {
  const SampleUpdate update(steps.scenario);
  StartScript([](const FileCall&) { return Verdict(); });
  static_cast<void>(SampleUpdate::Run(steps.scenario, update.folder()));
  const unsigned stride = kOnWindows && !TriesEverything() ? 17 : 1;
  unsigned replaced = 0;
  unsigned tried = 0;
  for (const FileCall& step : StopScript()) {
    if (replaced >= steps.from_replaced && replaced < steps.to_replaced &&
        step.number % stride == 0 && !testing::Test::HasFatalFailure()) {
      SCOPED_TRACE(std::string(steps.name) + ", step " + std::to_string(step.number) + ": " +
                   std::string(step.name) + " " + PathToUtf8(step.subject));
      test(step);
      ++tried;
    }
    if (step.call == Call::kMoveReplacing) ++replaced;
  }
  EXPECT_GT(tried, 0u) << steps.name;
}

}  // namespace zul::test
