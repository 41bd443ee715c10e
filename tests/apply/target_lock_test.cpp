#include "apply/target_lock.h"

#include <gtest/gtest.h>

#include "core/text.h"
#include "tests/support/trace_reader.h"

namespace zul {
namespace {

constexpr std::uint32_t kApplication = 77;
constexpr std::uint32_t kScanner = 99;

/// What one probe meets.
struct Met {
  std::uint32_t code = 32;  ///< 0: the file is free
  std::vector<LockOwner> owners;
};
const Met kFree{0, {}};
const Met kUnknown{32, {}};
const Met kScanned{5, {{kScanner, "scan.exe", true, "scansvc", false}}};
const Met kRunning{
    32, {{kApplication, "qorva.exe", false, "", true}, {kScanner, "scan.exe", false, "", false}}};

/// The world of one target, and a journal of everything that is done to it: "close 77", "force 77",
/// "wait 250", "show" and "hide" (the button); repetitions in a row are counted.
class LockScene final : public ProgressSurface {
 public:
  explicit LockScene(std::vector<std::string>& journal) : journal_(journal) {}

  void EnsureCreated(UpdateProgressWindow& state) override { state_ = &state; }
  void Repaint() override {}
  void RefreshButton() override {
    if (state_->force_visible() != shown_) Add(state_->force_visible() ? "show" : "hide");
    shown_ = state_->force_visible();
  }
  void PumpMessages() override {}
  void DestroyWindow() override {}

  /// `meet` is asked with the number of the probe, from 1.
  TargetLockActions Actions(std::function<Met(unsigned probe)> meet, unsigned press_at_wait = 0) {
    TargetLockActions actions;
    actions.probe = [meet, probes = 0u](const fs::Path&, LockProbeResult& result) mutable {
      const Met met = meet(++probes);
      result.ok = met.code == 0;
      result.system_error = met.code;
      result.owners = met.owners;
      result.owner_query_ok = true;
      result.reason = ClassifyLock(result);
      return result.ok;
    };
    actions.application_pids = [](const LockProbeResult& result) {
      const bool runs = !result.owners.empty() && result.owners.front().pid == kApplication;
      return runs ? std::vector<std::uint32_t>{kApplication, kApplication + 1}
                  : std::vector<std::uint32_t>{};
    };
    actions.request_close = [this](const std::vector<std::uint32_t>& pids) {
      Add("close " + std::to_string(pids.front()));
      return 3u;
    };
    actions.force_close = [this](std::uint32_t pid, std::string* error) {
      Add("force " + std::to_string(pid));
      if (pid == kApplication) return true;
      *error = "refused";
      return false;
    };
    actions.wait = [this, press_at_wait, waits = 0u](std::chrono::milliseconds duration) mutable {
      Add("wait " + std::to_string(duration.count()));
      if (++waits == press_at_wait) state_->PressForceClose();
    };
    return actions;
  }

 private:
  void Add(const std::string& what) {
    if (journal_.empty() || last_ != what) {
      journal_.push_back(what);
      times_ = 1;
    } else {
      journal_.back() = what + " x" + std::to_string(++times_);
    }
    last_ = what;
  }

  std::vector<std::string>& journal_;
  std::string last_;
  unsigned times_ = 0;
  UpdateProgressWindow* state_ = nullptr;
  bool shown_ = false;
};

/// One ResolveTargetLock for each entry of `targets`, all with the same window.
struct Clearing {
  std::vector<std::string> journal;
  test::TraceInTempFolder trace;
  LockScene* const scene = new LockScene(journal);
  UpdateProgressWindow window{std::unique_ptr<ProgressSurface>(scene)};
  ApplyCloseContext context{&window, false};
  std::string error;

  bool Resolve(std::function<Met(unsigned)> meet, unsigned press_at_wait = 0) {
    return ResolveTargetLock("app.dll", &context, error,
                             scene->Actions(std::move(meet), press_at_wait));
  }
};

std::function<Met(unsigned)> Until(unsigned free_at, const Met& before) {
  return [free_at, before](unsigned probe) { return probe >= free_at ? kFree : before; };
}
std::function<Met(unsigned)> Always(const Met& met) {
  return [met](unsigned) { return met; };
}

struct Case {
  const char* name;
  std::function<Met(unsigned)> meet;
  std::vector<std::string> journal;
  std::string failure;  ///< behind the target; empty when the lock clears
  unsigned press_at_wait = 0;
  bool force_from_start = false;
};

std::vector<std::string> NeverClosing() {
  std::vector<std::string> journal = {"show", "close 77", "wait 500 x9"};
  for (int cycle = 10; cycle < 240; cycle += 10) {
    journal.insert(journal.end(), {"close 77", "wait 500 x10"});
  }
  journal.insert(journal.end(), {"close 77", "wait 500", "hide", "wait 250 x11"});
  return journal;
}

const std::string kOwners = "pid=77,name='qorva.exe',main_tree=true; pid=99,name='scan.exe'";
const Case kCases[] = {
    {"free at once", Always(kFree), {}, ""},
    {"held for a moment", Until(4, kUnknown), {"wait 250 x3"}, ""},
    {"held for good by a scanner",
     Always(kScanned),
     {"wait 250 x11"},
     "external_process_lock, code=5, attempts=12, "
     "owners=[pid=99,name='scan.exe',service='scansvc']"},
    {"an error that waiting does not mend",
     Always(Met{1224, {}}),
     {},
     "filesystem_error, code=1224, owners=[]"},
    {"an application that closes",
     Until(2, kRunning),
     {"show", "close 77", "wait 500", "hide"},
     ""},
    {"an application that is asked again",
     Until(22, kRunning),
     {"show", "close 77", "wait 500 x9", "close 77", "wait 500 x10", "close 77", "wait 500 x2",
      "hide"},
     ""},
    {"an application that stays", Always(kRunning), NeverClosing(),
     "main_process_tree_still_alive, code=32, attempts=12, owners=[" + kOwners + "]"},
    {"an application, then a scanner: cycles are no attempts",
     [](unsigned probe) { return probe <= 20 ? kRunning : kScanned; },
     {"show", "close 77", "wait 500 x9", "close 77", "wait 500 x10", "close 77", "wait 500", "hide",
      "wait 250 x11"},
     "external_process_lock, code=5, attempts=12, "
     "owners=[pid=99,name='scan.exe',service='scansvc']"},
    {"the button pressed",
     Until(5, kRunning),
     {"show", "close 77", "wait 500 x2", "force 77", "force 78", "wait 500", "force 77", "force 78",
      "wait 500", "hide"},
     "",
     2},
    {"force asked for by the caller",
     Until(2, kRunning),
     {"show", "force 77", "force 78", "wait 500", "hide"},
     "",
     0,
     true},
};

TEST(TargetLockTest, ClearsOrReports) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    Clearing clearing;
    clearing.context.force_close = c.force_from_start;
    EXPECT_EQ(clearing.Resolve(c.meet, c.press_at_wait), c.failure.empty());
    EXPECT_EQ(clearing.journal, c.journal);
    EXPECT_EQ(clearing.error, c.failure.empty() ? ""
                                                : "pre-apply lock probe failed: target='app.dll', "
                                                  "reason=" +
                                                      c.failure);
    EXPECT_FALSE(clearing.window.force_visible() || clearing.window.force_close_requested());
    // Without a window all is done alike, but nobody can press.
    std::vector<std::string> unseen;
    LockScene scene(unseen);
    if (c.press_at_wait != 0) continue;
    ApplyCloseContext context{nullptr, c.force_from_start};
    std::string error;
    EXPECT_EQ(ResolveTargetLock("app.dll", c.force_from_start ? &context : nullptr, error,
                                scene.Actions(c.meet)),
              c.failure.empty());
    EXPECT_EQ(error, clearing.error);
  }
}

TEST(TargetLockTest, APressHoldsForOneTarget) {
  Clearing clearing;
  EXPECT_TRUE(clearing.Resolve(Until(3, kRunning), 1));
  EXPECT_EQ(clearing.window.shown_title(), L"Installing update...");
  clearing.journal.clear();
  EXPECT_TRUE(clearing.Resolve([&](unsigned probe) {
    if (probe == 2) {
      EXPECT_EQ(clearing.window.shown_title(), L"Waiting for QORVA to close...");
      EXPECT_EQ(clearing.window.detail(),
                L"QORVA is still running. The updater asked it to close safely; use Force close "
                L"only if it is stuck.");
      EXPECT_EQ(clearing.window.percent_text(), L"100%");
    }
    return probe == 2 ? kFree : kRunning;
  }));
  EXPECT_EQ(clearing.journal, (std::vector<std::string>{"show", "close 77", "wait 500", "hide"}));
  const std::string close = "apply_request_close_locking_zul_process owners=" + kOwners +
                            " pids=77,78 target=app.dll wm_close_messages=3";
  EXPECT_EQ(
      clearing.trace.Events(),
      (std::vector<std::string>{close,
                                "apply_force_close_locking_zul_process error=refused owners=" +
                                    kOwners + " pids=77,78 target=app.dll terminated=1",
                                close}));
}

TEST(TargetLockTest, TracesOnlyWhatItDoes) {
  for (const auto& [meet, events] :
       {std::pair{Always(kFree), 0u}, {Always(kScanned), 0u}, {Until(22, kRunning), 3u}}) {
    Clearing clearing;
    (void)clearing.Resolve(meet);
    EXPECT_EQ(clearing.trace.Events().size(), events);
  }
}

}  // namespace
}  // namespace zul
