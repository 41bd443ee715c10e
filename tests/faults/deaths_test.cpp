// A process that ends at any step of an update, and the update after it.

#include <gtest/gtest.h>

#include "tests/faults/every_step.h"
#include "tests/faults/other_process.h"

namespace zul::test {
namespace {

struct DeathCase {
  const char* name;
  Scenario scenario;
  unsigned replaced_before;  ///< deaths start behind so many replaced files
};

const DeathCase kDeathCases[] = {{"update", Scenario::kUpdate, 0},
                                 {"reextraction", Scenario::kReextraction, 0},
                                 {"rollback", Scenario::kRollback, 6}};

TEST(Deaths, NoStepLosesAFileAndTheNextRunSucceeds) {
  for (const auto& [name, scenario, replaced_before] : kDeathCases) {
    ForEachStep(
        name, scenario, replaced_before, ~0u,
        [scenario = scenario](const auto& calls, unsigned at) {
          for (const Fault fault : {Fault::kDieBefore, Fault::kDieHalfway, Fault::kDieAfter}) {
            if (fault == Fault::kDieHalfway && calls[at - 1].name != "WriteSome") continue;
            // What follows a step is what precedes the next: nothing else touches the disk.
            if (fault == Fault::kDieAfter && at != calls.size()) continue;
            SCOPED_TRACE("fault " + std::to_string(static_cast<int>(fault)));
            const SampleUpdate update(scenario);
            ASSERT_EQ(RunInOtherProcess(scenario, {fault, at}, update.folder()), kDied);
            ASSERT_EQ(update.Damage(), "");

            std::string error;
            ASSERT_TRUE(SampleUpdate::Run(Scenario::kUpdate, update.folder(), &error)) << error;
            ASSERT_EQ(update.Installed(), SampleUpdate::kNew);
            ASSERT_EQ(update.Damage(), "");
          }
        });
  }
}

}  // namespace
}  // namespace zul::test

int main(int argc, char** argv) {
  zul::test::RunIfThisIsTheOther(argc, argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
