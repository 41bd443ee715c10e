// What is done, and when, to clear the lock on one target. Real holders are in
// tests/rig/test_locks.py.

#include "apply/target_lock.h"

#include <gtest/gtest.h>

#include "tests/apply/unseen_surface.h"
#include "tests/support/trace_reader.h"

namespace zul {
namespace {

/// What one probe meets.
struct Met {
  std::uint32_t code = 32;  ///< 0: the file is free
  std::vector<LockOwner> owners;
};
const Met kFree{0, {}};
const Met kScanned{5, {{99, "scan.exe", true, "scansvc", false}}};
const Met kRunning{32, {{77, "qorva.exe", false, "", true}, {99, "scan.exe", false, "", false}}};

using Meet = std::function<Met(unsigned probe)>;  // from 1

Meet Until(unsigned free_at, const Met& before) {
  return [free_at, before](unsigned probe) { return probe >= free_at ? kFree : before; };
}
Meet Always(const Met& met) {
  return [met](unsigned) { return met; };
}

std::string Times(int count, std::string_view text) {
  std::string repeated;
  for (int i = 0; i < count; ++i) repeated += text;
  return repeated;
}

/// The world of one target, and a journal of everything that is done to it: "close", "force77" and
/// a wait's milliseconds, with a "+" while the button is offered.
struct Clearing {
  test::TraceInTempFolder trace;
  UpdateProgressWindow window{std::make_unique<test::UnseenSurface>()};
  ApplyCloseContext context{&window, false};
  std::string journal;
  std::string error;

  void Note(const std::string& what) { journal += what + (window.force_visible() ? "+ " : " "); }

  bool Resolve(const Meet& meet, unsigned press_at_wait = 0) {
    unsigned probes = 0;
    unsigned waits = 0;
    TargetLockActions actions;
    actions.probe = [&](const fs::Path&, LockProbeResult* result) {
      const Met met = meet(++probes);
      *result = {met.code == 0, "", met.code, "", met.owners, true, ""};
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
  Meet meet;
  std::string journal;
  std::string failure;  ///< behind the target; empty when the lock clears
  unsigned press_at_wait = 0;
  bool force_from_start = false;
} kCases[] = {
    {"free at once", Always(kFree), "", ""},
    {"held for good", Always(kScanned), Times(11, "250 "), kScanner},
    {"an error that waiting does not mend", Always({1224, {}}), "",
     "filesystem_error, code=1224, owners=[]"},
    {"an application that stays", Always(kRunning),
     "close+ " + Times(9, "500+ ") + Times(23, "close+ " + Times(10, "500+ ")) + "close+ 500+ " +
         Times(11, "250 "),
     "main_process_tree_still_alive, code=32, attempts=12, owners=[" + kOwners + "]"},
    {"an application, then a scanner: cycles are no attempts",
     [](unsigned probe) { return probe <= 5 ? kRunning : kScanned; },
     "close+ " + Times(5, "500+ ") + Times(11, "250 "), kScanner},
    {"the button pressed", Until(5, kRunning), "close+ 500+ 500+ force77+ 500+ force77+ 500+ ", "",
     2},
    {"force asked for by the caller", Until(2, kRunning), "force77+ 500+ ", "", 0, true},
};

TEST(TargetLockTest, ClearsOrReports) {
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Clearing clearing;
    clearing.context.force_close = c.force_from_start;
    EXPECT_EQ(clearing.Resolve(c.meet, c.press_at_wait), c.failure.empty());
    EXPECT_EQ(clearing.journal, c.journal);
    const std::string start = "pre-apply lock probe failed: target='app.dll', reason=";
    EXPECT_EQ(clearing.error, c.failure.empty() ? "" : start + c.failure);
    EXPECT_FALSE(clearing.window.force_visible() || clearing.window.force_close_requested());
  }
}

TEST(TargetLockTest, APressHoldsForOneTarget) {
  Clearing clearing;
  EXPECT_TRUE(clearing.Resolve(Until(3, kRunning), 1));
  EXPECT_EQ(clearing.window.shown_title(), L"Installing update...");
  clearing.journal.clear();
  EXPECT_TRUE(clearing.Resolve([&](unsigned probe) {
    if (probe == 1) return kRunning;
    EXPECT_EQ(clearing.window.shown_title(), L"Waiting for QORVA to close...");
    return kFree;
  }));
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
