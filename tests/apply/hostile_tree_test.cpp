// Links and names that no package brings, in the staged tree and in the installation. Another
// process can place them there.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/apply/installation.h"
#include "tests/support/file_tricks.h"
#include "tests/ui/fake_screen.h"

namespace zul {
namespace {

using test::Files;
using test::FilesBelow;
using test::Installation;
using test::MakeLink;

class HostileTree : public testing::Test {
 protected:
  // Links cannot be removed from inside Wine.
  void TearDown() override { test::RemoveHostTree(folder_); }

  void ExpectRefused(const std::string& message) {
    EXPECT_FALSE(installation_.Apply());
    EXPECT_EQ(installation_.error, message);
    EXPECT_EQ(installation_.outcome.kind, ApplyOutcomeKind::kFailedBeforeChange);
  }

  Installation installation_;
  const fs::Path& folder_ = installation_.folder.path();
};

TEST_F(HostileTree, RefusesALinkOutOfTheStagedTree) {
  if (test::RunsUnderWine()) GTEST_SKIP() << "a link to a file looks like the file";
  test::WriteFile(folder_ / "work/outside/x.bin", "not ours");
  installation_.Install("app.exe", "old");
  if (!MakeLink(folder_ / "work/outside/x.bin", installation_.staged_root / "app.exe")) {
    GTEST_SKIP() << "no links here";
  }
  ExpectRefused("Staged update contains an unsafe payload path: '" +
                PathToUtf8(fs::Path("..") / "outside" / "x.bin") + "'.");
  EXPECT_EQ(test::ReadFile(installation_.target_root / "app.exe"), "old");
}

// The name of the second folder begins with the name of the installation's folder.
TEST_F(HostileTree, RefusesATargetFolderThatLeadsOut) {
  for (const char* outside : {"outside", "app2"}) {
    test::WriteFile(folder_ / outside / "x.bin", "not ours");
    installation_.Stage(std::string(outside) + "_link/x.bin", "new");
    const fs::Path link = installation_.target_root / (std::string(outside) + "_link");
    if (!MakeLink(folder_ / outside, link)) GTEST_SKIP() << "no links here";
    ExpectRefused("Update payload target escapes the update directory: '" +
                  PathToUtf8(link / "x.bin") + "'");
    EXPECT_EQ(test::ReadFile(folder_ / outside / "x.bin"), "not ours");
    std::error_code ec;
    fs::RemoveTree(installation_.staged_root / link.filename(), ec);
  }
}

// A folder that is missing cannot be held, so its path is resolved directly before it is made.
TEST_F(HostileTree, RefusesANewFolderThatBecomesALinkAfterItsCheck) {
  test::WriteFile(folder_ / "outside/keep", "x");
  installation_.Stage("new/x.bin", "new");
  if (!MakeLink(folder_ / "outside", folder_ / "link")) GTEST_SKIP() << "no links here";
  int pumps = 0;  // during the changes: at their start, and after the walk has found the file
  test::FakeScreen screen;
  screen.on_pump = [&] {
    if (test::Exists(installation_.backup_root) && ++pumps == 2) {
      EXPECT_TRUE(MakeLink(folder_ / "outside", installation_.target_root / "new"));
    }
  };
  UpdateProgressWindow window(std::make_unique<test::FakeSurface>(screen));
  EXPECT_FALSE(installation_.Apply({}, &window));
  EXPECT_EQ(installation_.error.substr(0, installation_.error.find(": '")),
            "Update payload target escapes the update directory");
  EXPECT_EQ(FilesBelow(folder_ / "outside"), (Files{{"keep", "x"}}));
}

// To install a file twice would replace its backup with the new content.
TEST_F(HostileTree, InstallsAFileOnceDespiteLinksToIt) {
  installation_.Install("app.exe", "old");
  for (const char* name : {"app.exe", "other.exe"}) installation_.Stage(name, "new");
  for (const char* name : {"alias1", "zalias2"}) {
    if (!MakeLink(installation_.staged_root / "app.exe", installation_.staged_root / name)) {
      GTEST_SKIP() << "no links here";
    }
  }
  test::WriteFile(folder_ / "work/outside/x.bin", "not ours");
  ASSERT_TRUE(MakeLink(folder_ / "work/outside", installation_.staged_root / "data"));
  ASSERT_TRUE(MakeLink(folder_ / "none", installation_.staged_root / "dangling"));
  EXPECT_FALSE(installation_.Apply({.fail_after_replacements = 2}));
  EXPECT_EQ(installation_.outcome.kind, ApplyOutcomeKind::kRolledBack) << installation_.error;
  EXPECT_EQ(FilesBelow(installation_.target_root), (Files{{"app.exe", "old"}}));
  if (test::RunsUnderWine()) return;  // there a link to a file looks like the file
  EXPECT_TRUE(installation_.Apply()) << installation_.error;
  EXPECT_EQ(FilesBelow(installation_.target_root),
            (Files{{"app.exe", "new"}, {"other.exe", "new"}}));
}

// The tree is changed before the first walk, then after the first replacement.
TEST_F(HostileTree, RefusesUnsafeNamesInBothWalks) {
  if (test::kOnWindows) GTEST_SKIP() << "Windows cannot create such names";
  std::vector<std::string> folders;  // more than the files that are prepared ahead
  for (char c = 'a'; c <= 'z'; ++c) folders.emplace_back(1, c);
  for (const std::string& folder : folders) {
    installation_.Install(folder + "/file", "old");
    installation_.Stage(folder + "/file", "new");
  }
  const Files before = FilesBelow(installation_.target_root);
  installation_.Stage("k/bad:", "x");
  ExpectRefused("Staged update contains an unsafe payload path: 'k/bad:'.");
  std::error_code ec;
  fs::Remove(installation_.staged_root / "k/bad:", ec);

  bool tampered = false;
  test::FakeScreen screen;
  screen.on_pump = [&] {
    if (tampered || FilesBelow(installation_.target_root) == before) return;
    tampered = true;
    for (const std::string& folder : folders) installation_.Stage(folder + "/bad:", "x");
  };
  UpdateProgressWindow window(std::make_unique<test::FakeSurface>(screen));
  EXPECT_FALSE(installation_.Apply({}, &window));
  EXPECT_EQ(installation_.outcome.kind, ApplyOutcomeKind::kRolledBack);
  EXPECT_TRUE(installation_.error.starts_with(
      "Staged update changed during apply and now contains an unsafe payload path: '"))
      << installation_.error;
  EXPECT_EQ(FilesBelow(installation_.target_root), before);
}

}  // namespace
}  // namespace zul
