// Names in a staged tree that no package can hold and a tampered workspace can. Windows' own calls
// cannot make them, so these cases run natively only.

#include <gtest/gtest.h>

#include <utility>

#include "tests/apply/installation.h"

namespace zul {
namespace {

using test::Installation;
using test::Snapshot;
using test::TakeSnapshot;

TEST(HostileNamesTest, RefusesUnsafeNamesBeforeAnyChange) {
  for (const char* name : {"a:b", "sub/x*", "q?", "<x>", "a|b/c", "\"", "ctrl\x01"}) {
    SCOPED_TRACE(name);
    Installation installation;
    installation.Install("app.exe", "old");
    installation.Stage("app.exe", "new");
    installation.Stage(name, "x");
    EXPECT_FALSE(installation.Apply());
    EXPECT_EQ(installation.error,
              "Staged update contains an unsafe payload path: '" + std::string(name) + "'.");
    EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kFailedBeforeChange);
    EXPECT_EQ(TakeSnapshot(installation.target_root), (Snapshot{{"app.exe", "old"}}));
  }
}

TEST(HostileNamesTest, ATreeThatChangesBetweenTheWalksIsRolledBack) {
  Installation installation;
  for (const char* name : {"d0/file", "d1/file", "d2/file"}) {
    installation.Install(name, "old");
    installation.Stage(name, "new");
  }
  const Snapshot before = TakeSnapshot(installation.target_root);
  bool tampered = false;
  EXPECT_FALSE(installation.Apply({}, [&] {
    if (std::exchange(tampered, true)) return;
    for (const char* name : {"d0/bad:", "d1/bad:", "d2/bad:"}) installation.Stage(name, "x");
  }));
  EXPECT_EQ(installation.outcome.kind, ApplyOutcomeKind::kRolledBack);
  const std::string start =
      "Staged update changed during apply and now contains an unsafe payload path: 'd";
  EXPECT_EQ(installation.error.substr(0, start.size()), start);
  EXPECT_EQ(TakeSnapshot(installation.target_root), before);
}

}  // namespace
}  // namespace zul
