// A volume that has room for a part of an update only. It holds the installation and the temporary
// folder.

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "tests/faults/sample_update.h"
#include "tests/support/file_tricks.h"

namespace zul::test {
namespace {

constexpr std::uint64_t kPageBytes = 4096;  // what an old file takes; a new one takes one or two
constexpr unsigned kScarcePages = 22;
constexpr unsigned kEnoughPages = 60;

class FullVolume : public testing::Test {
 protected:
  void SetUp() override {
    if (volume_.path().empty()) GTEST_SKIP() << volume_.why_not();
  }

  /// Leaves that many pages free.
  void Fill(unsigned pages) const {
    std::error_code ec;
    const std::uint64_t available = fs::AvailableSpace(volume_.path(), ec);
    ASSERT_GE(available, pages * kPageBytes);
    WriteFile(filler_, std::string(available - pages * kPageBytes, 'x'));
  }

  /// Runs the scenario with that script, in the room that is left, and then the update that
  /// follows.
  bool Run(Scenario scenario, const Script& script, unsigned pages) {
    const SampleUpdate update(scenario, place_);
    Fill(pages);
    StartScript(place_, script);
    ApplyOutcome outcome;
    const bool ok = SampleUpdate::Run(scenario, place_, &error_, &outcome);
    StopScript();
    EXPECT_EQ(update.Damage(), "");
    EXPECT_TRUE(update.ExtractionLeftovers().empty());
    EXPECT_EQ(FilesBelow(place_ / "app"),  // no temporary copies
              ok && scenario == Scenario::kApply ? SampleUpdate::kNew : SampleUpdate::kOld);
    EXPECT_NE(outcome.kind, ApplyOutcomeKind::kRecoveryRequired) << error_;

    std::error_code ec;
    fs::Remove(filler_, ec);
    std::string error;
    EXPECT_TRUE(SampleUpdate::Run(Scenario::kUpdate, place_, &error)) << error;
    EXPECT_EQ(update.Installed(), SampleUpdate::kNew);
    EXPECT_TRUE(fs::RemoveTree(place_, ec));
    return ok;
  }

  const SmallVolume volume_;
  const fs::Path place_ = volume_.path() / "sample";
  const fs::Path filler_ = volume_.path() / "filler";
  std::string error_;  // of the last run
};

// The room is counted, and then the volume is too small for a change, because its facts are
// unavailable. Counting must not refuse an update that has room enough.
TEST_F(FullVolume, LosesNoFileAndRefusesNoUpdateThatFits) {
  const Script counted = [](const FileCall&) { return Verdict(); };
  const Script uncounted = [](const FileCall& call) {
    return Verdict{call.call == Call::kVolumeOf ? Fate::kFail : Fate::kProceed};
  };
  const struct {
    Scenario scenario;
    const Script& script;
    std::set<std::string> failures;  ///< each is met with one amount of space or another
  } cases[] = {
      {Scenario::kExtraction,
       counted,
       {"not enough disk space for ZIP extraction", "cannot write extracted file"}},
      {Scenario::kApply, counted, {"Not enough free space on '"}},
      {Scenario::kApply,
       uncounted,
       {"retired executable rollback backup failed", "apply update copy failed"}},
  };
  std::set<unsigned> least_pages;  // with which an apply succeeds
  for (const auto& [scenario, script, failures] : cases) {
    std::set<std::string> missing = failures;
    unsigned refused = 0;
    for (unsigned amount = 0; amount <= kScarcePages; ++amount) {
      const unsigned pages = amount < kScarcePages ? amount : kEnoughPages;
      SCOPED_TRACE("scenario " + std::to_string(static_cast<int>(scenario)) + " with " +
                   std::to_string(pages) + " free pages");
      const bool ok = Run(scenario, script, pages);
      EXPECT_TRUE(ok || pages < kEnoughPages) << error_;
      if (!ok) refused = pages;
      std::erase_if(missing, [&](const auto& failure) { return error_.starts_with(failure); });
    }
    for (const std::string& failure : missing) ADD_FAILURE() << "never met: " << failure;
    if (scenario == Scenario::kApply) least_pages.insert(refused + 1);
  }
  EXPECT_EQ(least_pages.size(), 1u);
}

// Another program takes all of the room before one of the changes.
TEST_F(FullVolume, RestoresWithoutRoom) {
  const std::set<Call> changes = {Call::kCreateNewFile, Call::kMoveReplacing, Call::kMoveToNewName,
                                  Call::kRemove};
  ForEachStep({"apply", Scenario::kApply}, [&](const FileCall& step) {
    if (!changes.contains(step.call)) return;
    const auto fill = [&](const FileCall& call) {
      if (IsSameStep(call, step)) Fill(0);
      return Verdict();
    };
    static_cast<void>(Run(Scenario::kApply, fill, kEnoughPages));
  });
}

}  // namespace
}  // namespace zul::test
