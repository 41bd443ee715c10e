// Staged trees that no package can hold and a tampered workspace can. Their names and links cannot
// be made through Windows' own calls here, so these cases run natively only.

#include <gtest/gtest.h>
#include <unistd.h>

#include "core/text.h"
#include "tests/apply/installation.h"

namespace zul {
namespace {

using test::Installation;
using test::Snapshot;
using test::TakeSnapshot;

void MakeLink(const fs::Path& to, const fs::Path& link) {
  ASSERT_EQ(::symlink(to.c_str(), link.c_str()), 0) << link;
}

void ExpectRefused(Installation& installation, const std::string& message) {
  const Snapshot before = TakeSnapshot(installation.target_root);
  EXPECT_FALSE(installation.Apply());
  EXPECT_EQ(installation.error, message);
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kFailedBeforeChange);
  EXPECT_EQ(TakeSnapshot(installation.target_root), before);
}

TEST(HostileTreeTest, RefusesUnsafeNames) {
  for (const char* name : {"a:b", "sub/x*", "q?", "<x>", "a|b/c", "\"", "ctrl\x01"}) {
    SCOPED_TRACE(name);
    Installation installation;
    installation.Install("app.exe", "old");
    installation.Stage(name, "x");
    ExpectRefused(installation,
                  "Staged update contains an unsafe payload path: '" + std::string(name) + "'.");
  }
}

TEST(HostileTreeTest, RefusesALinkOutOfTheStagedTree) {
  Installation installation;
  installation.Install("app.exe", "old");
  test::WriteFile(installation.folder / "work/secret", "outside");
  MakeLink(installation.folder / "work/secret", installation.staged_root / "app.exe");
  ExpectRefused(installation, "Staged update contains an unsafe payload path: '../secret'.");
}

TEST(HostileTreeTest, RefusesATargetFolderThatLeadsOut) {
  Installation installation;
  installation.Stage("data/x.bin", "new");
  test::WriteFile(installation.folder / "elsewhere/x.bin", "not ours");
  MakeLink(installation.folder / "elsewhere", installation.target_root / "data");
  ExpectRefused(installation, "Update payload target escapes the update directory: '" +
                                  PathToUtf8(installation.target_root / "data/x.bin") + "'");
  EXPECT_EQ(test::ReadFile(installation.folder / "elsewhere/x.bin"), "not ours");
}

TEST(HostileTreeTest, PassesOverLinksToFoldersAndDanglingLinks) {
  Installation installation;
  installation.Stage("app.exe", "new");
  test::WriteFile(installation.folder / "elsewhere/x.bin", "x");
  MakeLink(installation.folder / "elsewhere", installation.staged_root / "data");
  MakeLink("nowhere", installation.staged_root / "dangling");
  EXPECT_TRUE(installation.Apply()) << installation.error;
  EXPECT_EQ(TakeSnapshot(installation.target_root), (Snapshot{{"app.exe", "new"}}));
}

// A second install under the same name would back the new content up over the old one.
TEST(HostileTreeTest, ALinkBesideItsFileDoesNotSpoilTheBackup) {
  Installation installation;
  installation.Install("app.exe", "old");
  installation.Stage("app.exe", "new");
  MakeLink("app.exe", installation.staged_root / "alias1");
  MakeLink("app.exe", installation.staged_root / "alias2");
  installation.Stage("other.exe", "new");
  ApplyFaultInjection faults;
  faults.fail_after_replacements = 2;
  EXPECT_FALSE(installation.Apply(faults));
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kRolledBack) << installation.error;
  EXPECT_EQ(TakeSnapshot(installation.target_root), (Snapshot{{"app.exe", "old"}}));
}

TEST(HostileTreeTest, ATreeThatChangesBetweenTheWalksIsRolledBack) {
  Installation installation;
  for (int i = 0; i < 8; ++i) {
    const std::string name = "d" + std::to_string(i) + "/file";
    installation.Install(name, "old");
    installation.Stage(name, "new");
  }
  const Snapshot before = TakeSnapshot(installation.target_root);
  bool tampered = false;
  EXPECT_FALSE(installation.Apply({}, [&] {
    if (std::exchange(tampered, true)) return;
    for (int i = 0; i < 8; ++i) installation.Stage("d" + std::to_string(i) + "/bad:name", "x");
  }));
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kRolledBack);
  const std::string start =
      "Staged update changed during apply and now contains an unsafe payload path: 'd";
  EXPECT_EQ(installation.error.substr(0, start.size()), start);
  EXPECT_EQ(TakeSnapshot(installation.target_root), before);
}

}  // namespace
}  // namespace zul
