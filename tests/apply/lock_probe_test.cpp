#include "apply/lock_probe.h"

#include <gtest/gtest.h>

#include "core/process_environment.h"
#include "core/text.h"
#include "tests/support/temp_folder.h"

namespace zul {
namespace {

using test::TempFolder;
using test::WriteFile;

TEST(LockProbeTest, ClassifiesByErrorAndOwners) {
  const std::vector<LockOwner> nobody;
  const std::vector<LockOwner> foreign = {{7, "scan.exe", false, "", false}};
  const std::vector<LockOwner> both = {{7, "scan.exe", false, "", false}, {8, "", false, "", true}};
  struct Case {
    std::uint32_t code;
    const std::vector<LockOwner>& owners;
    const char* reason;
  };
  const Case cases[] = {
      {2, nobody, "missing_path"},
      {3, both, "missing_path"},
      {5, nobody, "permission_issue"},
      {1314, nobody, "permission_issue"},
      {32, nobody, "unknown_lock_owner"},
      {33, nobody, "unknown_lock_owner"},
      {1224, nobody, "filesystem_error"},
      {5, foreign, "external_process_lock"},
      {32, both, "main_process_tree_still_alive"},
      {1224, foreign, "external_process_lock"},
  };
  for (const Case& c : cases) {
    LockProbeResult result;
    EXPECT_EQ(ClassifyLock(result), "ok");
    result.ok = false;
    result.system_error = c.code;
    result.owners = c.owners;
    EXPECT_EQ(ClassifyLock(result), c.reason) << c.code;
  }
}

TEST(LockProbeTest, WalksUpTheProcessTree) {
  ProcessParents parents = {{10, 9}, {9, 8}, {8, 1}, {1, 1}, {20, 21}, {21, 20}, {30, 0}, {4, 4}};
  for (std::uint32_t pid = 1000; pid < 1200; ++pid) parents[pid] = pid + 1;
  struct Case {
    std::uint32_t pid;
    std::uint32_t main_pid;
    bool inside;
  };
  const Case cases[] = {
      {8, 8, true},
      {10, 8, true},
      {10, 10, true},
      {8, 10, false},  // a parent is no
                       // descendant
      {10, 1, true},
      {10, 7, false},
      {20, 21, true},
      {20, 8, false},  // a circle, of pids
                       // that were used
                       // again
      {4, 8, false},
      {99, 99, true},
      {99, 8, false},
      {30, 0, false},
      {0, 0, false},
      {0, 8, false},
      {1000, 1128, true},
      {1000, 1129, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(IsInProcessTree(c.pid, c.main_pid, parents), c.inside) << c.pid << " " << c.main_pid;
    EXPECT_EQ(MakeLockOwner({c.pid, "", 0, ""}, c.main_pid, parents).main_tree, c.inside);
  }
  EXPECT_FALSE(IsInProcessTree(10, 8, {}));  // a process list that could not be had
}

TEST(LockProbeTest, FormatsOwnersAndFailures) {
  const LockOwner service = MakeLockOwner({12, "Skener žluť", 3, "scansvc"}, 40, {{12, 1}});
  const LockOwner other = MakeLockOwner({41, "", 1000, ""}, 40, {{41, 40}});
  EXPECT_TRUE(service.is_service);
  EXPECT_FALSE(other.is_service);
  const std::string owners = "pid=12,name='Skener žluť',service='scansvc'; pid=41,main_tree=true";
  EXPECT_EQ(FormatLockOwners({service, other}), owners);
  EXPECT_EQ(FormatLockOwners({}), "");

  LockProbeResult result{false, "unknown_lock_owner", 32, "In use.", {}, true, ""};
  const fs::Path target = PathFromUtf8("žluť.dll").value();
  const std::string start = "pre-apply lock probe failed: target='žluť.dll', reason=";
  EXPECT_EQ(FormatLockFailure(target, result, 12),
            start + "unknown_lock_owner, code=32, message='In use.', attempts=12, owners=[]");
  result.owners = {service, other};
  result.message.clear();
  EXPECT_EQ(FormatLockFailure(target, result, 1),
            start + "unknown_lock_owner, code=32, owners=[" + owners + "]");
  result.owner_query_ok = false;
  EXPECT_EQ(FormatLockFailure(target, result, 2),
            start + "unknown_lock_owner, code=32, attempts=2");
  result.owner_query_error = "RmGetList failed, code=5";
  EXPECT_EQ(FormatLockFailure(target, result, 2), start +
                                                      "unknown_lock_owner, code=32, attempts=2" +
                                                      ", owner_query='RmGetList failed, code=5'");
}

// The image decides where it can be read, so this test's own process is no application whatever its
// name in the list; a process that is gone is judged by that name.
TEST(LockProbeTest, ListsTheApplicationsOnce) {
  constexpr std::uint32_t kGone = 0x7FFFFFF0;
  LockProbeResult result;
  result.owners = {{kGone + 4, "QORVA_GUI.exe", false, "", false},
                   {0, "qorva.exe", false, "", true},
                   {CurrentProcessId(), "qorva.exe", false, "", true},
                   {kGone, "zul_rip.exe", false, "", false},
                   {kGone + 8, "qorva_updater.exe", false, "", true},
                   {kGone + 4, "qorva_gui.exe", false, "", false}};
  EXPECT_EQ(ApplicationOwnerPids(result, "/app"), (std::vector<std::uint32_t>{kGone + 4, kGone}));
}

TEST(LockProbeTest, AsksForOwnersOnlyWhenTheFileIsHeld) {
  const TempFolder folder;
  WriteFile(folder / "free.dll", "free");
  int queries = 0;
  const LockOwnerQuery query = [&](const fs::Path&, std::uint32_t main_pid,
                                   std::vector<LockOwner>& owners, std::string& error) {
    owners = {{main_pid, "left by a query that failed", false, "", true}};
    error = "RmGetList failed, code=5";
    return ++queries > 1;
  };
  LockProbeResult result{false, "left over", 1, "left over", {{1, "", false, "", true}}, true, "x"};
  std::string error;
  for (const char* free : {"free.dll", "missing.dll", "missing/folder.dll"}) {
    EXPECT_TRUE(ProbeTargetLock(folder / free, 8, result, &error, query)) << free;
    EXPECT_EQ(result.reason, "ok");
    EXPECT_TRUE(result.ok && result.owners.empty() && result.message.empty());
  }
  EXPECT_EQ(queries, 0);
  EXPECT_EQ(error, "");

  // A folder can never be opened as a file: as good as a lock here.
  EXPECT_FALSE(ProbeTargetLock(folder.path(), 8, result, &error, query));
  EXPECT_FALSE(result.ok || result.owner_query_ok);
  EXPECT_TRUE(result.owners.empty());
  EXPECT_EQ(result.owner_query_error, "RmGetList failed, code=5");
  EXPECT_NE(result.message, "");
  EXPECT_EQ(error, "Lock probe failed for '" + PathToUtf8(folder.path()) + "'");
  EXPECT_FALSE(ProbeTargetLock(folder.path(), 8, result, nullptr, query));
  EXPECT_EQ(result.reason, "main_process_tree_still_alive");
}

}  // namespace
}  // namespace zul
