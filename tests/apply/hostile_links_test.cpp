// Links in the staged tree and in the installation, which no package brings and a tampered
// workspace can hold.

#include <gtest/gtest.h>

#include "core/text.h"
#include "tests/apply/installation.h"
#include "tests/support/file_tricks.h"

namespace zul {
namespace {

using test::Installation;
using test::MakeLink;
using test::Snapshot;
using test::TakeSnapshot;

class HostileLinksTest : public testing::Test {
 protected:
  void SetUp() override {
    test::WriteFile(outside_ / "x.bin", "not ours");
    if (!MakeLink(outside_, installation_.folder / "probe")) GTEST_SKIP() << "no links here";
  }
  // Links cannot be removed from inside Wine.
  void TearDown() override { test::RemoveHostTree(installation_.folder.path()); }

  void ExpectRefused(const std::string& message) {
    EXPECT_FALSE(installation_.Apply());
    EXPECT_EQ(installation_.error, message);
    EXPECT_EQ(installation_.outcome.kind, ApplyOutcomeKind::kFailedBeforeChange);
    EXPECT_EQ(TakeSnapshot(outside_), (Snapshot{{"x.bin", "not ours"}}));
  }

  Installation installation_;
  const fs::Path outside_ = installation_.folder.path() / "work" / "outside";
};

TEST_F(HostileLinksTest, RefusesALinkOutOfTheStagedTree) {
  installation_.Install("app.exe", "old");
  ASSERT_TRUE(MakeLink(outside_ / "x.bin", installation_.staged_root / "app.exe"));
  ExpectRefused("Staged update contains an unsafe payload path: '" +
                PathToUtf8(fs::Path("..") / "outside" / "x.bin") + "'.");
  EXPECT_EQ(TakeSnapshot(installation_.target_root), (Snapshot{{"app.exe", "old"}}));
}

TEST_F(HostileLinksTest, RefusesATargetFolderThatLeadsOut) {
  installation_.Stage("data/x.bin", "new");
  ASSERT_TRUE(MakeLink(outside_, installation_.target_root / "data"));
  ExpectRefused("Update payload target escapes the update directory: '" +
                PathToUtf8(installation_.target_root / "data" / "x.bin") + "'");
}

TEST_F(HostileLinksTest, PassesOverLinksToFoldersAndDanglingLinks) {
  installation_.Stage("app.exe", "new");
  ASSERT_TRUE(MakeLink(outside_, installation_.staged_root / "data"));
  ASSERT_TRUE(MakeLink(outside_ / "none", installation_.staged_root / "dangling"));
  EXPECT_TRUE(installation_.Apply()) << installation_.error;
  EXPECT_EQ(TakeSnapshot(installation_.target_root), (Snapshot{{"app.exe", "new"}}));
}

// A second install under the same name would back the new content up over the old one.
TEST_F(HostileLinksTest, ALinkBesideItsFileDoesNotSpoilTheBackup) {
  installation_.Install("app.exe", "old");
  for (const char* name : {"app.exe", "other.exe"}) installation_.Stage(name, "new");
  for (const char* name : {"alias1", "zalias2"}) {
    ASSERT_TRUE(MakeLink(installation_.staged_root / "app.exe", installation_.staged_root / name));
  }
  ApplyFaultInjection faults;
  faults.fail_after_replacements = 2;
  EXPECT_FALSE(installation_.Apply(faults));
  EXPECT_EQ(installation_.outcome.kind, ApplyOutcomeKind::kRolledBack) << installation_.error;
  EXPECT_EQ(TakeSnapshot(installation_.target_root), (Snapshot{{"app.exe", "old"}}));
}

}  // namespace
}  // namespace zul
