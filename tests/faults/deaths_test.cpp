// A process that ends at any step of an update, and the update after it.

#include <gtest/gtest.h>

#include <cstdio>

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

/// What follows a step is what precedes the next: nothing else touches the disk.
std::vector<Fault> DeathsAt(const std::vector<FileCall>& calls, unsigned at) {
  std::vector<Fault> faults = {Fault::kDieBefore};
  if (calls[at - 1].name == "WriteSome") faults.push_back(Fault::kDieHalfway);
  if (at == calls.size()) faults.push_back(Fault::kDieAfter);
  return faults;
}

TEST(Deaths, NoStepLosesAFileAndTheNextRunSucceeds) {
  for (const DeathCase& row : kDeathCases) {
    SCOPED_TRACE(row.name);
    const std::vector<FileCall> calls = CallsOf(row.scenario);
    const auto count = static_cast<unsigned>(calls.size());
    unsigned deaths = 0;
    for (unsigned at = StepBehind(calls, row.replaced_before); at <= count; at += StepWidth()) {
      for (const Fault fault : DeathsAt(calls, at)) {
        SCOPED_TRACE(Describe(calls, at) + " fault " + std::to_string(static_cast<int>(fault)));
        const SampleUpdate update(row.scenario);
        ASSERT_EQ(RunInOtherProcess(row.scenario, {fault, at}, update.folder()), kDied);
        ++deaths;
        ASSERT_EQ(update.Damage(), "");

        std::string error;
        ASSERT_TRUE(SampleUpdate::Run(Scenario::kUpdate, update.folder(), &error)) << error;
        ASSERT_EQ(update.Installed(), SampleUpdate::New());
        ASSERT_EQ(update.Damage(), "");
      }
    }
    std::printf("%s: %u deaths in %u steps\n", row.name, deaths, count);
  }
}

}  // namespace
}  // namespace zul::test

int main(int argc, char** argv) {
  zul::test::RunIfThisIsTheOther(argc, argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
