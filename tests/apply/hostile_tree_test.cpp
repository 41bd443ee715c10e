// Links in the staged tree and in the installation, and names, which no package brings and a
// tampered workspace can hold.

#include <gtest/gtest.h>

#include <utility>

#include "tests/apply/installation.h"
#include "tests/apply/unseen_surface.h"
#include "tests/support/file_tricks.h"

namespace zul {
namespace {

using test::Installation;
using test::MakeLink;
using test::Snapshot;
using test::TakeSnapshot;

class HostileTreeTest : public testing::Test {
 protected:
  void SetUp() override { test::WriteFile(outside_ / "x.bin", "not ours"); }
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

TEST_F(HostileTreeTest, RefusesALinkOutOfTheStagedTree) {
  installation_.Install("app.exe", "old");
  if (!MakeLink(outside_ / "x.bin", installation_.staged_root / "app.exe"))
    GTEST_SKIP() << "no links here";
  ExpectRefused("Staged update contains an unsafe payload path: '" +
                PathToUtf8(fs::Path("..") / "outside" / "x.bin") + "'.");
}

TEST_F(HostileTreeTest, RefusesATargetFolderThatLeadsOut) {
  installation_.Stage("data/x.bin", "new");
  if (!MakeLink(outside_, installation_.target_root / "data")) GTEST_SKIP() << "no links here";
  ExpectRefused("Update payload target escapes the update directory: '" +
                PathToUtf8(installation_.target_root / "data" / "x.bin") + "'");
}

// A second install under the same name would back the new content up over the old one.
TEST_F(HostileTreeTest, OtherLinksAreNoFilesOfTheirOwn) {
  installation_.Install("app.exe", "old");
  for (const char* name : {"app.exe", "other.exe"}) installation_.Stage(name, "new");
  for (const char* name : {"alias1", "zalias2"}) {
    if (!MakeLink(installation_.staged_root / "app.exe", installation_.staged_root / name)) {
      GTEST_SKIP() << "no links here";
    }
  }
  ASSERT_TRUE(MakeLink(outside_, installation_.staged_root / "data"));
  ASSERT_TRUE(MakeLink(outside_ / "none", installation_.staged_root / "dangling"));
  EXPECT_FALSE(installation_.Apply({.fail_after_replacements = 2}));
  EXPECT_EQ(installation_.outcome.kind, ApplyOutcomeKind::kRolledBack) << installation_.error;
  EXPECT_EQ(TakeSnapshot(installation_.target_root), (Snapshot{{"app.exe", "old"}}));
  if (test::RunsUnderWine()) return;  // there a link to a file looks like the file
  EXPECT_TRUE(installation_.Apply()) << installation_.error;
  EXPECT_EQ(TakeSnapshot(installation_.target_root),
            (Snapshot{{"app.exe", "new"}, {"other.exe", "new"}}));
}

// Windows' own calls cannot make such names.
TEST_F(HostileTreeTest, RefusesUnsafeNamesBeforeAnyChange) {
  if (test::kOnWindows) GTEST_SKIP() << "no such names here";
  installation_.Install("app.exe", "old");
  installation_.Stage("app.exe", "new");
  for (const char* name : {"a:b", "x*", "q?", "<x", "x>", "a|b", "\"", "ctrl\x01"}) {
    installation_.Stage(name, "x");
    ExpectRefused("Staged update contains an unsafe payload path: '" + std::string(name) + "'.");
    EXPECT_EQ(test::ReadFile(installation_.target_root / "app.exe"), "old");
    std::error_code ec;
    fs::Remove(installation_.staged_root / name, ec);
  }
}

TEST_F(HostileTreeTest, ATreeThatChangesBetweenTheWalksIsRolledBack) {
  if (test::kOnWindows) GTEST_SKIP() << "no such names here";
  for (const char* name : {"d0/file", "d1/file", "d2/file"}) {
    installation_.Install(name, "old");
    installation_.Stage(name, "new");
  }
  const Snapshot before = TakeSnapshot(installation_.target_root);
  bool tampered = false;
  UpdateProgressWindow window(std::make_unique<test::UnseenSurface>([&] {
    if (!test::Exists(installation_.backup_root) || std::exchange(tampered, true)) return;
    for (const char* name : {"d0/bad:", "d1/bad:", "d2/bad:"}) installation_.Stage(name, "x");
  }));
  EXPECT_FALSE(installation_.Apply({}, &window));
  EXPECT_EQ(installation_.outcome.kind, ApplyOutcomeKind::kRolledBack);
  EXPECT_TRUE(installation_.error.starts_with(
      "Staged update changed during apply and now contains an unsafe payload path: 'd"))
      << installation_.error;
  EXPECT_EQ(TakeSnapshot(installation_.target_root), before);
}

}  // namespace
}  // namespace zul
