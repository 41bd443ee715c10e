// Probes, and the steps that clear the lock on one target. Locks that other processes hold are in
// system_locks_test_win32.cpp and tests/rig/test_locks.py, which also has the texts of owners.

#include "apply/target_lock.h"

#include <gtest/gtest.h>

#include "tests/support/trace_reader.h"
#include "tests/ui/fake_screen.h"

namespace zul {
namespace {

using Owners = std::vector<LockOwner>;

TEST(LockProbe, ClassifiesByErrorAndOwners) {
  const Owners none;
  const Owners foreign = {{7, "scan.exe", false, "", false}};
  const Owners both = {{7, "scan.exe", false, "", false}, {8, "", false, "", true}};
  const struct {
    std::uint32_t code;
    const Owners& owners;
    const char* reason;
  } cases[] = {
      {2, none, "missing_path"},        {3, both, "missing_path"},
      {5, none, "permission_issue"},    {1314, none, "permission_issue"},
      {32, none, "unknown_lock_owner"}, {33, none, "unknown_lock_owner"},
      {1224, none, "filesystem_error"}, {5, foreign, "external_process_lock"},
  };
  for (const auto& c : cases) {
    const LockProbeResult result{false, "", c.code, "", c.owners, true, ""};
    EXPECT_EQ(ClassifyLock(result), c.reason) << c.code;
  }
}

TEST(LockProbe, FindsTheMainProcessAmongTheParents) {
  // 1 is its own parent. 20 and 21 form a cycle, as reused process ids can.
  ProcessList processes;
  for (const auto& [pid, parent] : std::map<std::uint32_t, std::uint32_t>{
           {10, 9}, {9, 8}, {8, 1}, {1, 1}, {20, 21}, {21, 20}, {30, 0}}) {
    processes[pid].parent = parent;
  }
  for (std::uint32_t pid = 1000; pid < 1200; ++pid) processes[pid].parent = pid + 1;
  const struct {
    std::uint32_t pid, main_pid;
    bool is_inside;
  } cases[] = {
      {8, 8, true},   {10, 8, true},  {8, 10, false}, {10, 7, false},     {20, 8, false},
      {99, 99, true}, {30, 0, false}, {0, 8, false},  {1000, 1128, true}, {1000, 1129, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(MakeLockOwner({c.pid, "", 0, ""}, c.main_pid, processes).main_tree, c.is_inside)
        << c.pid << " " << c.main_pid;
  }
}

// No process has these ids, so no image path can be read.
TEST(LockProbe, JudgesAnOwnerWithoutAPathByTheProcessList) {
  const std::uint32_t first = ~0U - 3;
  const ProcessList processes = {{first, {1, "QORVA.exe"}}, {first + 1, {1, "scan.exe"}}};
  LockProbeResult result;
  for (const auto& [pid, name] :
       {std::pair{first, "QORVA RIP"}, {first + 1, "qorva.exe"}, {first + 2, "qorva_gui.exe"}}) {
    result.owners.push_back(MakeLockOwner({pid, name, 0, ""}, 0, processes));
  }
  EXPECT_EQ(ApplicationOwnerPids(result, "C:\\QORVA"), (std::vector{first, first + 2}));
}

TEST(LockProbe, AsksForOwnersOnlyWhenTheFileIsLocked) {
  const test::TempFolder folder;
  test::WriteFile(folder / "free.dll", "free");
  int queries = 0;
  const LockOwnerQuery query = [&](const auto&, auto main_pid, Owners* owners, auto*) {
    *owners = {{main_pid, "left by a query that failed", false, "", true}};
    return ++queries > 1;
  };
  LockProbeResult result{false, "left over", 1, "left over", {{1, "", false, "", true}}, true, "x"};
  for (const char* free : {"free.dll", "missing.dll", "missing/folder.dll"}) {
    EXPECT_TRUE(ProbeTargetLock(folder / free, 8, &result, nullptr, query)) << free;
    EXPECT_TRUE(result.ok && result.owners.empty() && queries == 0);
  }
  // The exclusive open of a folder fails, as that of a locked file does.
  EXPECT_FALSE(ProbeTargetLock(folder.path(), 8, &result, nullptr, query));
  EXPECT_TRUE(result.owners.empty());
  EXPECT_FALSE(ProbeTargetLock(folder.path(), 8, &result, nullptr, query));
  EXPECT_EQ(result.reason, "main_process_tree_still_alive");
}

/// The result of a probe.
struct Probe {
  std::uint32_t code = 32;  ///< 0 for a free file
  Owners owners;
};
const Probe kFree{0, {}};
const Probe kBroken{1224, {}};
const Probe kScanned{5, {{99, "scan.exe", true, "scansvc", false}}};
const Probe kRunning{32, {{77, "qorva.exe", false, "", true}, {99, "scan.exe", false, "", false}}};

std::string Times(int count, std::string_view text) {
  std::string repeated;
  for (int i = 0; i < count; ++i) repeated += text;
  return repeated;
}

/// Clears a lock whose probes are given, and writes a journal of the actions: "close", "force77"
/// and the milliseconds of each wait, with "+" while the button is shown.
struct Clearing {
  test::TraceInTempFolder trace;
  test::FakeScreen screen;
  UpdateProgressWindow window{std::make_unique<test::FakeSurface>(screen)};
  ApplyCloseContext context{&window, false};
  std::string journal, error;

  void Note(const std::string& action) {
    const bool waits_for_its_end = window.force_visible() && !context.force_close;
    EXPECT_EQ(window.gives_way_to(), std::vector<std::uint32_t>(waits_for_its_end ? 1 : 0, 77));
    journal += action + (window.force_visible() ? "+ " : " ");
  }

  /// The first `count` probes have the result `first`, the others `then`.
  bool Resolve(unsigned count, const Probe& first, const Probe& then, unsigned press_at_wait = 0) {
    unsigned probes = 0, waits = 0;
    TargetLockActions actions;
    actions.probe = [&](const fs::Path&, LockProbeResult* result) {
      const Probe& probe = probes++ < count ? first : then;
      *result = {probe.code == 0, "", probe.code, "", probe.owners, true, ""};
      result->reason = ClassifyLock(*result);
      return result->ok;
    };
    actions.application_pids = [](const LockProbeResult& result) {
      return std::vector<std::uint32_t>(result.owners.size() == 2 ? 1 : 0, 77);
    };
    actions.request_close = [&](const std::vector<std::uint32_t>&) {
      Note("close");
      return 3u;
    };
    actions.force_close = [&](std::uint32_t pid, std::string* reason) {
      Note("force" + std::to_string(pid));
      *reason = "refused";
      return false;
    };
    actions.wait = [&](std::chrono::milliseconds duration) {
      Note(std::to_string(duration.count()));
      EXPECT_TRUE(!window.force_visible() ||
                  window.shown_title() == L"Waiting for QORVA to close...");
      if (++waits == press_at_wait) window.PressForceClose();
    };
    return ResolveTargetLock("app.dll", &context, &error, actions);
  }
};

const std::string kOwners = "pid=77,name='qorva.exe',main_tree=true; pid=99,name='scan.exe'";
const std::string kScanner =
    "external_process_lock, code=5, attempts=12, owners=[pid=99,name='scan.exe',service='scansvc']";

const struct {
  const char* name;
  unsigned count;
  Probe first, then;
  std::string journal;
  std::string failure;  ///< after the target; empty when the lock clears
  unsigned press_at_wait = 0;
  bool force_from_start = false;
} kCases[] = {
    {"free at once", 0, kFree, kFree, "", ""},
    {"locked for good", 0, kFree, kScanned, Times(11, "250 "), kScanner},
    {"no wait clears it", 0, kFree, kBroken, "", "filesystem_error, code=1224, owners=[]"},
    {"an application that stays", 0, kFree, kRunning,
     "close+ " + Times(9, "500+ ") + Times(23, "close+ " + Times(10, "500+ ")) + "close+ 500+ " +
         Times(11, "250 "),
     "main_process_tree_still_alive, code=32, attempts=12, owners=[" + kOwners + "]"},
    // Close cycles are not attempts.
    {"an application, then a scanner", 5, kRunning, kScanned,
     "close+ " + Times(5, "500+ ") + Times(11, "250 "), kScanner},
    {"the button is pressed", 4, kRunning, kFree, "close+ 500+ 500+ force77+ 500+ force77+ 500+ ",
     "", 2},
    {"the caller asks for force", 1, kRunning, kFree, "force77+ 500+ ", "", 0, true},
};

TEST(ResolveTargetLock, ClearsTheLockOrReportsIt) {
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Clearing clearing;
    clearing.context.force_close = c.force_from_start;
    EXPECT_EQ(clearing.Resolve(c.count, c.first, c.then, c.press_at_wait), c.failure.empty());
    EXPECT_EQ(clearing.journal, c.journal);
    const std::string start = "pre-apply lock probe failed: target='app.dll', reason=";
    EXPECT_EQ(clearing.error, c.failure.empty() ? "" : start + c.failure);
    EXPECT_FALSE(clearing.window.force_visible() || clearing.window.force_close_requested());
  }
}

TEST(ResolveTargetLock, ForgetsAPressAfterEachTarget) {
  Clearing clearing;
  EXPECT_TRUE(clearing.Resolve(2, kRunning, kFree, 1));
  EXPECT_EQ(clearing.window.shown_title(), L"Installing update...");
  clearing.journal.clear();
  EXPECT_TRUE(clearing.Resolve(1, kRunning, kFree));
  EXPECT_EQ(clearing.journal, "close+ 500+ ");
  const std::string close = "apply_request_close_locking_zul_process owners=" + kOwners +
                            " pids=77 target=app.dll wm_close_messages=3";
  const std::string force =
      "apply_force_close_locking_zul_process error=refused owners=" + kOwners +
      " pids=77 target=app.dll terminated=0";
  EXPECT_EQ(clearing.trace.Events(), (std::vector<std::string>{close, force, close}));
}

}  // namespace
}  // namespace zul
