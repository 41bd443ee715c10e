// A volume that has room for a part of an update only.

#include <gtest/gtest.h>

#include <set>

#include "tests/faults/sample_update.h"
#include "tests/support/file_tricks.h"

namespace zul::test {
namespace {

constexpr std::uint64_t kPageBytes = 4096;  // what an old file takes; a new one takes one or two
constexpr unsigned kScarcePages = 14;
constexpr unsigned kEnoughPages = 60;

TEST(FullVolume, LosesNoFileAndTheNextUpdateSucceeds) {
  const SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  const fs::Path place = volume.path() / "sample";
  const fs::Path filler = volume.path() / "filler";
  const struct {
    Scenario scenario;
    std::set<std::string> failures;  ///< each is met with one amount of space or another
  } cases[] = {
      {Scenario::kExtraction,
       {"not enough disk space for ZIP extraction", "cannot write extracted file"}},
      {Scenario::kApply, {"retired executable rollback backup failed", "apply update copy failed"}},
  };
  for (const auto& [scenario, failures] : cases) {
    std::set<std::string> missing = failures;
    for (unsigned amount = 0; amount <= kScarcePages; ++amount) {
      const unsigned pages = amount < kScarcePages ? amount : kEnoughPages;
      SCOPED_TRACE("scenario " + std::to_string(static_cast<int>(scenario)) + " with " +
                   std::to_string(pages) + " free pages");
      const SampleUpdate update(scenario, place);
      std::error_code ec;
      const std::uint64_t available = fs::AvailableSpace(volume.path(), ec);
      ASSERT_GE(available, pages * kPageBytes);
      WriteFile(filler, std::string(available - pages * kPageBytes, 'x'));
      std::string error;
      ApplyOutcome outcome;
      const bool ok = SampleUpdate::Run(scenario, place, &error, &outcome);
      EXPECT_TRUE(ok || pages < kEnoughPages) << error;
      EXPECT_EQ(update.Damage(), "");
      EXPECT_TRUE(update.ExtractionLeftovers().empty());
      EXPECT_EQ(FilesBelow(place / "app"), update.Installed());  // no temporary copies
      EXPECT_TRUE(ok || outcome.kind == ApplyOutcomeKind::kRecoveryRequired ||
                  update.Installed() == SampleUpdate::kOld);
      missing.erase(error.substr(0, error.find(':')));

      fs::Remove(filler, ec);
      EXPECT_TRUE(SampleUpdate::Run(Scenario::kUpdate, place, &error)) << error;
      EXPECT_EQ(update.Installed(), SampleUpdate::kNew);
      ASSERT_TRUE(fs::RemoveTree(place, ec));
    }
    for (const std::string& failure : missing) ADD_FAILURE() << "never met: " << failure;
  }
}

}  // namespace
}  // namespace zul::test
