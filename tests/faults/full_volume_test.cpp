// A volume that has room for a part of an update only.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/faults/sample_update.h"
#include "tests/support/file_tricks.h"

namespace zul::test {
namespace {

constexpr std::uint64_t kPage = 4096;  // what each of the sample's files takes
constexpr unsigned kScarce = 14;
constexpr unsigned kEnough = 60;

struct SpaceCase {
  const char* name;
  Scenario scenario;
  /// What one amount of space or another must lead to.
  std::vector<std::string> failures;
} const kSpaceCases[] = {
    {"extraction",
     Scenario::kExtraction,
     {"not enough disk space for ZIP extraction", "cannot write extracted file"}},
    {"apply",
     Scenario::kApply,
     {"retired executable rollback backup failed", "apply update copy failed"}},
};

TEST(FullVolume, LosesNothingAndIsToldAndTheNextRunSucceeds) {
  const SmallVolume volume;
  if (volume.path().empty()) GTEST_SKIP() << volume.why_not();
  const fs::Path place = volume.path() / "sample";
  for (const SpaceCase& row : kSpaceCases) {
    std::set<std::string> met;
    for (unsigned pages = 0; pages <= kEnough; pages += pages < kScarce ? 1 : kEnough - kScarce) {
      SCOPED_TRACE(std::string(row.name) + " with room for " + std::to_string(pages) + " files");
      const SampleUpdate update(row.scenario, place);
      std::error_code ec;
      const std::uint64_t available = fs::AvailableSpace(volume.path(), ec);
      ASSERT_GE(available, pages * kPage);
      WriteFile(volume.path() / "filler", std::string(available - pages * kPage, 'x'));
      std::string error;
      ApplyOutcome outcome;
      const bool ok = SampleUpdate::Run(row.scenario, place, &error, &outcome);
      EXPECT_TRUE(ok || pages < kEnough) << error;
      EXPECT_EQ(update.Damage(), "");
      EXPECT_TRUE(update.ExtractionLeftovers().empty());
      EXPECT_EQ(FilesBelow(place / "app"), update.Installed());  // no temporary copies
      met.insert(error.substr(0, error.find(':')));
      EXPECT_TRUE(ok || outcome.kind == ApplyOutcomeKind::kRecoveryRequired ||
                  update.Installed() == SampleUpdate::kOld);

      fs::Remove(volume.path() / "filler", ec);
      EXPECT_TRUE(SampleUpdate::Run(Scenario::kUpdate, place, &error)) << error;
      EXPECT_EQ(update.Installed(), SampleUpdate::kNew);
      ASSERT_TRUE(fs::RemoveTree(place, ec));
    }
    for (const std::string& failure : row.failures) EXPECT_TRUE(met.contains(failure)) << failure;
  }
}

}  // namespace
}  // namespace zul::test
