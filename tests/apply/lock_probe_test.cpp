// The texts of owners and failures are in tests/rig/test_locks.py.

#include "apply/target_lock.h"

#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"

namespace zul {
namespace {

TEST(LockProbeTest, ClassifiesByErrorAndOwners) {
  const std::vector<LockOwner> nobody;
  const std::vector<LockOwner> foreign = {{7, "scan.exe", false, "", false}};
  const std::vector<LockOwner> both = {{7, "scan.exe", false, "", false}, {8, "", false, "", true}};
  const struct {
    std::uint32_t code;
    const std::vector<LockOwner>& owners;
    const char* reason;
  } cases[] = {
      {2, nobody, "missing_path"},        {3, both, "missing_path"},
      {5, nobody, "permission_issue"},    {1314, nobody, "permission_issue"},
      {32, nobody, "unknown_lock_owner"}, {33, nobody, "unknown_lock_owner"},
      {1224, nobody, "filesystem_error"}, {5, foreign, "external_process_lock"},
  };
  for (const auto& c : cases) {
    LockProbeResult result;
    result.ok = false;
    result.system_error = c.code;
    result.owners = c.owners;
    EXPECT_EQ(ClassifyLock(result), c.reason) << c.code;
  }
}

TEST(LockProbeTest, WalksUpTheProcessTree) {
  // With circles, as pids that were used again make them, and a process that is its own parent.
  ProcessParents parents = {{10, 9}, {9, 8}, {8, 1}, {1, 1}, {20, 21}, {21, 20}, {30, 0}};
  for (std::uint32_t pid = 1000; pid < 1200; ++pid) parents[pid] = pid + 1;
  const struct {
    std::uint32_t pid;
    std::uint32_t main_pid;
    bool inside;
  } cases[] = {
      {8, 8, true},   {10, 8, true},  {8, 10, false}, {10, 7, false},     {20, 8, false},
      {99, 99, true}, {30, 0, false}, {0, 8, false},  {1000, 1128, true}, {1000, 1129, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(MakeLockOwner({c.pid, "", 0, ""}, c.main_pid, parents).main_tree, c.inside) << c.pid << " " << c.main_pid;
  }
}

TEST(LockProbeTest, AsksForOwnersOnlyWhenTheFileIsHeld) {
  const test::TempFolder folder;
  test::WriteFile(folder / "free.dll", "free");
  int queries = 0;
  const LockOwnerQuery query = [&](const fs::Path&, std::uint32_t main_pid,
                                   std::vector<LockOwner>* owners, std::string*) {
    *owners = {{main_pid, "left by a query that failed", false, "", true}};
    return ++queries > 1;
  };
  LockProbeResult result{false, "left over", 1, "left over", {{1, "", false, "", true}}, true, "x"};
  for (const char* free : {"free.dll", "missing.dll", "missing/folder.dll"}) {
    EXPECT_TRUE(ProbeTargetLock(folder / free, 8, &result, nullptr, query)) << free;
    EXPECT_TRUE(result.ok && result.owners.empty() && queries == 0);
  }
  // A folder can never be opened as a file: as good as a lock here.
  EXPECT_FALSE(ProbeTargetLock(folder.path(), 8, &result, nullptr, query));
  EXPECT_TRUE(result.owners.empty());
  EXPECT_FALSE(ProbeTargetLock(folder.path(), 8, &result, nullptr, query));
  EXPECT_EQ(result.reason, "main_process_tree_still_alive");
}

}  // namespace
}  // namespace zul
