#include "apply/apply.h"

#include <gtest/gtest.h>

#include "apply/staged_tree.h"
#include "core/process_environment.h"
#include "core/text.h"
#include "tests/apply/installation.h"

namespace zul {
namespace {

using test::Installation;
using test::Snapshot;
using test::TakeSnapshot;

using Events = std::vector<std::string>;

void ExpectFailedBeforeChange(Installation& installation, const std::string& message) {
  const Snapshot before = TakeSnapshot(installation.target_root);
  EXPECT_FALSE(installation.Apply());
  EXPECT_EQ(installation.error, message);
  EXPECT_EQ(installation.outcome.message, message);
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kFailedBeforeChange);
  EXPECT_EQ(TakeSnapshot(installation.target_root), before);
  EXPECT_EQ(installation.Events(), Events{});
}

TEST(ApplyTest, InstallsTheStagedTreeAndRetiresOldExecutables) {
  Installation installation;
  const std::string big(3'000'001, 'x');
  installation.Install("app.exe", "old app");
  installation.Install("data/profiles/a.icc", "old profile, longer than the new one");
  installation.Install("data/mine.txt", "the user's own");
  installation.Install("qorva.exe", "retired, but staged again");
  installation.Install("zul_rip.exe", "retired");
  installation.Install("zul_updater.exe", "retired too");
  installation.Install("data/zul_rip.exe", "not at the top level");
  installation.Stage("app.exe", big);
  installation.Stage("data/profiles/a.icc", std::string("n\0w", 3));
  installation.Stage("data/p\xC5\x99\xC3\xADklad/empty.bin", "");
  installation.Stage("qorva.exe", "new");
  std::error_code ec;
  ASSERT_TRUE(fs::CreateDirectories(installation.staged_root / "nothing/in here", ec));
  // What an earlier failed run left.
  test::WriteFile(installation.backup_root / "app.exe", "older");
  const Snapshot staged = TakeSnapshot(installation.staged_root);

  EXPECT_TRUE(installation.Apply()) << installation.error;

  EXPECT_EQ(TakeSnapshot(installation.target_root),
            (Snapshot{{"app.exe", big},
                      {"data/", ""},
                      {"data/mine.txt", "the user's own"},
                      {"data/profiles/", ""},
                      {"data/profiles/a.icc", std::string("n\0w", 3)},
                      {"data/p\xC5\x99\xC3\xADklad/", ""},
                      {"data/p\xC5\x99\xC3\xADklad/empty.bin", ""},
                      {"data/zul_rip.exe", "not at the top level"},
                      {"qorva.exe", "new"}}));
  EXPECT_EQ(TakeSnapshot(installation.staged_root), staged);
  EXPECT_FALSE(test::Exists(installation.backup_root));
  EXPECT_EQ(installation.error, "");
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kApplied);
  EXPECT_EQ(installation.outcome.backup_root, "");
  EXPECT_EQ(installation.Events(),
            (Events{"retired_install_executable_removed path=zul_rip.exe rollback=protected",
                    "retired_install_executable_removed path=zul_updater.exe rollback=protected"}));
}

TEST(ApplyTest, AnEmptyTreeAppliesNothing) {
  Installation installation;
  installation.Install("app.exe", "old");
  EXPECT_TRUE(ApplyStagedUpdate(installation.staged_root, installation.target_root, 0, nullptr,
                                false, nullptr, nullptr, nullptr));
  EXPECT_EQ(TakeSnapshot(installation.target_root), (Snapshot{{"app.exe", "old"}}));
  EXPECT_FALSE(test::Exists(installation.backup_root));
}

TEST(ApplyTest, RefusesAMissingStagedDirectory) {
  Installation installation;
  installation.Install("app.exe", "old");
  std::error_code ec;
  fs::Remove(installation.staged_root, ec);
  const std::string message =
      "Staged update directory is missing: '" + PathToUtf8(installation.staged_root) + "'.";
  ExpectFailedBeforeChange(installation, message);
  test::WriteFile(installation.staged_root, "a file");
  ExpectFailedBeforeChange(installation, message);
}

TEST(ApplyTest, RefusesAFolderInThePlaceOfARetiredExecutable) {
  Installation installation;
  installation.Install("zul_rip.exe/inside.txt", "kept");
  installation.Install("qorva.exe", "retired");
  installation.Stage("app.exe", "new");
  ExpectFailedBeforeChange(installation,
                           "Retired executable target is not a regular root-level file: '" +
                               PathToUtf8(installation.target_root / "zul_rip.exe") + "'.");
}

TEST(ApplyTest, AFailureOfTheFirstChangeLeavesNothingToUndo) {
  Installation installation;
  installation.Install("data/inside.txt", "kept");
  installation.Stage("data", "new");
  const Snapshot before = TakeSnapshot(installation.target_root);
  EXPECT_FALSE(installation.Apply());
  const std::string start = "rollback backup copy failed: source='" +
                            PathToUtf8(installation.target_root / "data") + "', target='" +
                            PathToUtf8(installation.backup_root / "data") + "', reason=";
  EXPECT_EQ(installation.error.substr(0, start.size()), start);
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kFailedBeforeChange);
  EXPECT_EQ(installation.outcome.message, installation.error);
  EXPECT_EQ(installation.outcome.backup_root, PathToUtf8(installation.backup_root));
  EXPECT_TRUE(test::Exists(installation.backup_root));
  EXPECT_EQ(TakeSnapshot(installation.target_root), before);
  EXPECT_EQ(installation.Events(), Events{});
}

TEST(ApplyTest, PassesOverTheRunningExecutable) {
  Installation installation;
  const fs::Path own = CurrentExecutablePath(260);
  std::error_code ec;
  const std::uint64_t size = fs::SizeOf(own, ec);
  test::WriteFile(installation.staged_root / own.filename(), "another updater");
  ApplyFaultInjection undo_if_replaced;
  undo_if_replaced.fail_after_replacements = 1;
  std::string error;
  EXPECT_TRUE(ApplyStagedUpdate(installation.staged_root, own.parent_path(), 0, nullptr, false,
                                &error, nullptr, &undo_if_replaced))
      << error;
  EXPECT_EQ(fs::SizeOf(own, ec), size);
}

TEST(ApplyTest, JudgesPayloadPaths) {
  const auto safe = [](std::string_view text) {
    return IsSafePayloadPath(PathFromUtf8(text).value());
  };
  for (const char* text : {"a", "a/b.dll", "...", ".a", "a..b", "sp ace/\xC5\x99", "a'b"}) {
    EXPECT_TRUE(safe(text)) << text;
  }
  for (const char* text : {"",     "/",     "/a",  "..",  "../a", "a/../b", "a/..", ".",
                           "./a",  "a/./b", "a/",  "a:b", "C:a",  "C:/a",   "a\tb", "a\x1F",
                           "a\"b", "a*",    "a<b", "a>b", "a?b",  "dir|x/a"}) {
    EXPECT_FALSE(safe(text)) << text;
  }
}

}  // namespace
}  // namespace zul
