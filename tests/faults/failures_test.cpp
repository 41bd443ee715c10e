// Each step of an extraction, an apply and a rollback fails, once or for good. Judged are the kind
// of the failure, its text, and the files on the disk.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>

#include "core/system_error.h"
#include "core/text.h"
#include "tests/faults/sample_update.h"
#include "tests/support/file_tricks.h"

namespace zul::test {
namespace {

using enum Call;
using Calls = std::set<Call>;

// ---------------------------------------------------------------------------------------------
// One run with one failure

const struct SystemFault {
  std::error_code error;
  bool is_lock;  ///< the product tries again what fails with it
} kSystemFaults[] = {
    {SystemError(kOnWindows ? 5 : EACCES), true},     // access denied
    {SystemError(kOnWindows ? 32 : EBUSY), true},     // sharing violation
    {SystemError(kOnWindows ? 112 : ENOSPC), false},  // full disk
    {SystemError(kOnWindows ? 1117 : EIO), false},    // device error
};

/// Which calls fail after the first one.
enum class Lasts {
  kOnce,        ///< none
  kTwoInARow,   ///< the next one on its thread, for example what is asked after a failed question
  kForAWhile,   ///< later calls of the same primitive on the same file, more than one pass makes
  kForGood,     ///< every later call of the same primitive on the same file
  kEverywhere,  ///< every later call of the same primitive
};

struct Mishap {
  Lasts lasts;
  Fate fate = Fate::kFail;
};

struct FaultyRun {
  /// Runs the scenario, in which one step fails.
  FaultyRun(Scenario scenario, const FileCall& step, const Mishap& mishap,
            const SystemFault& system_fault)
      : lasts(mishap.lasts), fault(system_fault), update(scenario) {
    constexpr unsigned kAWhile = 12;
    unsigned failures = 0;
    StartScript(update.folder(), [&](const FileCall& call) {
      if (!(failures == 0 ? IsSameStep(call, step) : FailsToo(call, failures))) return Verdict();
      if (failures++ == 0) failed = call;
      if (lasts == Lasts::kForAWhile && failures > kAWhile) return Verdict();
      failed_calls.insert(call.call);
      return Verdict{mishap.fate, mishap.fate == Fate::kDeny ? std::error_code() : fault.error};
    });
    try {
      ok = SampleUpdate::Run(scenario, update.folder(), &text, &outcome);
    } catch (const std::bad_alloc&) {
      has_thrown = true;
    }
    calls = StopScript();
    EXPECT_NE(failures, 0u) << "the run never came to the step";
  }

  /// True when a call after the failed one, and after that many failures, fails as well.
  [[nodiscard]] bool FailsToo(const FileCall& call, unsigned failures) const {
    switch (lasts) {
      case Lasts::kOnce:
        return false;
      case Lasts::kTwoInARow:
        return failures == 1 && call.thread == failed.thread;
      case Lasts::kForAWhile:
      case Lasts::kForGood:
        return call.call == failed.call && call.file == failed.file;
      case Lasts::kEverywhere:
        return call.call == failed.call;
    }
    return false;
  }

  /// The name of the failed step's file in a folder of the update. Nothing when it is elsewhere.
  [[nodiscard]] std::optional<std::string> NameBelow(std::string_view folder) const {
    return test::NameBelow(folder, failed);
  }

  /// True when the failed step closes a file that was written.
  [[nodiscard]] bool ClosesWritten() const {
    const auto before =
        std::find_if(calls.rend() - (failed.number - 1), calls.rend(), [&](const FileCall& call) {
          return call.file == failed.file && call.thread == failed.thread;
        });
    return before != calls.rend() && before->call == kFlush;
  }

  /// True when the product needs the failed step, and tries again while a file is locked.
  [[nodiscard]] bool IsRetried() const {
    if (lasts == Lasts::kTwoInARow || has_thrown) return false;
    if (failed.call == kRename) return true;
    if (!NameBelow("app") && !NameBelow("work/rollback_backup")) return false;
    // The close of a file that was only read is not needed.
    if (failed.call == kClose) return ClosesWritten();
    return Calls{kCreateNewFile, kWriteSome,     kTakeTimeAndAttributes,
                 kFlush,         kMoveReplacing, kMoveToNewName}
        .contains(failed.call);
  }

  /// True when a retried step succeeds in the end.
  [[nodiscard]] bool Passes() const { return lasts == Lasts::kOnce && fault.is_lock; }

  const Lasts lasts;
  const SystemFault& fault;
  const SampleUpdate update;
  std::vector<FileCall> calls;
  FileCall failed;
  Calls failed_calls;  // `failed` and those after it
  bool ok = false;
  bool has_thrown = false;
  std::string text;
  ApplyOutcome outcome;
};

// ---------------------------------------------------------------------------------------------
// Texts

std::string Nothing(const std::error_code& /*error*/) {
  return {};
}

/// The beginning of a failure's text, what it says of the system's error after that, and the calls
/// whose failure may be reported so.
struct Report {
  std::string_view text;
  std::string (*error)(const std::error_code&);
  Calls calls;
};

const Calls kMakingFolder = {kCreateDirectoryOnce, kKindOf};
const Calls kCopying = {kOpenForRead, kRead,  kCreateNewFile, kWriteSome,    kTakeTimeAndAttributes,
                        kFlush,       kClose, kMoveReplacing, kMoveToNewName};

const Report kReports[] = {
    // An archive that cannot be read is reported as a damaged one.
    {"cannot open ZIP", Nothing, {kOpenForRead, kFacts, kSize, kReadAt}},
    {"invalid ZIP central directory: ", Nothing, {kReadAt}},
    {"ZIP end record not found", Nothing, {kReadAt}},
    {"ZIP inflate failed: ", Nothing, {kReadAt}},
    {"cannot determine free space for ZIP extraction: ", SystemErrorText, {kAvailableSpace}},
    {"cannot resolve extraction root", Nothing, {kHoldFolder, kWhereabouts}},
    {"extracted file resolved outside extraction root", Nothing, {kWhereabouts}},
    {"cannot resolve extracted file path", Nothing, {kHoldFolder, kWhereabouts}},
    {"Cannot inspect extraction destination: ", SystemErrorText, {kKindOf}},
    {"ZIP extraction directory identity changed", Nothing, {kKindOf}},
    {"Cannot create extraction parent directory: ", SystemErrorText, kMakingFolder},
    {"Cannot create unique extraction directory: ", SystemErrorText, {kCreateDirectoryOnce}},
    {"cannot create extraction directory: ", SystemErrorText, {kCreateDirectoryOnce}},
    {"cannot create extracted file exclusively: ", SystemErrorText, {kCreateNewFileIn}},
    {"cannot write extracted file: ", SystemErrorText, {kWriteSome}},
    {"cannot flush extracted file: ", SystemErrorText, {kFlush}},
    {"cannot close extracted file: ", SystemErrorText, {kClose}},
    {"Cannot stage previous extraction directory: ", DescribeSystemError, {kRename}},
    {"Cannot finalize extraction directory: ", DescribeSystemError, {kRename}},

    {"Staged update directory is missing: '", Nothing, {kKindOf}},
    {"Cannot enumerate staged update tree", DescribeSystemError, {kNext}},
    {"Cannot resolve staged relative path ", DescribeSystemError, {kWeaklyCanonical}},
    {"Update payload target cannot be normalized: '", Nothing, {kWeaklyCanonical}},
    {"Update payload target escapes the update directory: '", Nothing, {kWeaklyCanonical}},
    {"Update target directory cannot be normalized: '", Nothing, {kWeaklyCanonical}},
    {"pre-apply lock probe failed: target='", DescribeSystemError, {kOpensExclusively}},
    {"Cannot create rollback backup directory: '", DescribeSystemError, kMakingFolder},
    {"Cannot create rollback path: '", DescribeSystemError, kMakingFolder},
    {"Cannot create target directory for update: '", DescribeSystemError, kMakingFolder},
    {"Cannot inspect retired executable target '", DescribeSystemError, {kKindOf}},
    {"Cannot inspect staged update for retired executable '", DescribeSystemError, {kKindOf}},
    {"retired executable removal failed: ", DescribeSystemError, {kKindOf, kRemove}},
    {"retired executable rollback backup failed: ", DescribeSystemError, kCopying},
    {"rollback backup copy failed: ", DescribeSystemError, kCopying},
    {"apply update copy failed: ", DescribeSystemError, kCopying},
};

bool IsReported(const FaultyRun& run) {
  const auto is_one_of = [](const Calls& calls) {
    return [&calls](Call call) { return calls.contains(call); };
  };
  return std::ranges::any_of(kReports, [&](const Report& report) {
    return std::ranges::any_of(run.failed_calls, is_one_of(report.calls)) &&
           run.text.starts_with(report.text) &&
           run.text.find(report.error(run.fault.error), report.text.size()) != std::string::npos;
  });
}

// ---------------------------------------------------------------------------------------------
// Expectations

void ExpectExtraction(const FaultyRun& run) {
  EXPECT_TRUE(run.ok || run.has_thrown || IsReported(run)) << run.text;
  EXPECT_TRUE(!run.IsRetried() || run.ok == run.Passes());
  EXPECT_EQ(run.update.Installed(), SampleUpdate::kOld);
  // A file that is not on the device is not published.
  const std::string name = run.NameBelow("work").value_or("");
  const bool is_staged = name.starts_with(".qorva-zip-stage/");
  const Calls writing = {kCreateNewFileIn, kWriteSome, kFlush, kClose};
  const bool is_folder = run.failed.call == kClose && !run.ClosesWritten();
  EXPECT_FALSE(run.ok && is_staged && !is_folder && writing.contains(run.failed.call));

  const Files before = run.update.FoundAtDestination();
  const std::vector<fs::Path> leftovers = run.update.ExtractionLeftovers();
  constexpr std::string_view kPreserved = "; previous destination preserved at ";
  if (const std::size_t at = run.text.find(kPreserved); at != std::string::npos) {
    EXPECT_EQ(FilesBelow(*PathFromUtf8(run.text.substr(at + kPreserved.size()))), before);
    EXPECT_EQ(leftovers.size(), 1u);
    return;
  }
  if (run.has_thrown) return;  // which leaves what a death leaves
  EXPECT_EQ(FilesBelow(run.update.folder() / "work/payload"),
            run.ok ? SampleUpdate::kPackage : before);
  // A backup that cannot be removed stays.
  EXPECT_TRUE(leftovers.empty() || run.failed_calls.contains(kRemoveTree));
}

void ExpectApply(const FaultyRun& run) {
  EXPECT_TRUE(run.ok || IsReported(run)) << run.text;
  EXPECT_TRUE(!run.IsRetried() || run.ok == run.Passes());
  EXPECT_EQ(FilesBelow(run.update.folder() / "app"),
            run.ok ? SampleUpdate::kNew : SampleUpdate::kOld);

  // A file that was not changed has no backup, whose room the restores may need.
  if (!run.ok && run.IsRetried()) {
    const Files backups = FilesBelow(run.update.folder() / "work/rollback_backup");
    EXPECT_FALSE(backups.contains(run.NameBelow("app").value_or("")));
    EXPECT_FALSE(backups.contains(run.NameBelow("work/rollback_backup").value_or("")));
  }

  // The first change of the sample is the removal of a retired executable.
  const bool has_changed = std::ranges::any_of(run.calls, [&](const FileCall& call) {
    return call.call == kRemove && call.file == "app/qorva.exe";
  });
  EXPECT_EQ(run.outcome.kind, run.ok        ? ApplyOutcomeKind::kApplied
                              : has_changed ? ApplyOutcomeKind::kRolledBack
                                            : ApplyOutcomeKind::kFailedBeforeChange);
  EXPECT_EQ(run.text.ends_with(" Rollback completed and every restored target was verified."),
            !run.ok && has_changed);
}

/// True when no copy of the file can be made, but the backup itself can be moved into place.
bool HasNoRoomForACopy(const FaultyRun& run) {
  return run.fault.error == kSystemFaults[2].error && run.failed.call != kRead;
}

/// The apply fails after its last change, and then its rollback meets the failure.
void ExpectRollback(const FaultyRun& run) {
  const bool incomplete = run.outcome.kind == ApplyOutcomeKind::kRecoveryRequired;
  EXPECT_TRUE(!run.ok && (incomplete || run.outcome.kind == ApplyOutcomeKind::kRolledBack));
  EXPECT_TRUE(!incomplete || run.lasts == Lasts::kForGood);
  EXPECT_TRUE(!run.IsRetried() || run.lasts != Lasts::kForGood ||
              incomplete != HasNoRoomForACopy(run));
  Files installed = run.update.Installed();
  Files old = SampleUpdate::kOld;
  const std::string name =
      run.NameBelow("work/rollback_backup").value_or(run.NameBelow("app").value_or(""));
  if (incomplete) {
    constexpr std::string_view kStart =
        "RECOVERY_REQUIRED: update apply failed: fault injection: apply failed after 8 "
        "successful replacement(s). Rollback was incomplete; do not start QORVA from this folder. ";
    EXPECT_TRUE(run.text.starts_with(kStart)) << run.text;
    EXPECT_EQ(run.outcome.message, run.text);
    // The text names the one file that is not restored.
    const std::string native_name = PathToUtf8(PathFromUtf8(name)->make_preferred());
    EXPECT_NE(run.text.find(native_name + "'"), std::string::npos) << run.text;
    installed.erase(name);
    old.erase(name);
  }
  EXPECT_EQ(installed, old);
  Files backups = SampleUpdate::kOld;
  backups.erase("mine.txt");
  Files found = FilesBelow(run.update.folder() / "work/rollback_backup");
  if (HasNoRoomForACopy(run) && !incomplete && !found.contains(name)) backups.erase(name);
  EXPECT_EQ(found, backups);
}

/// The apply meets the failure of a question, and fails after its last change.
void ExpectOldFiles(const FaultyRun& run) {
  EXPECT_EQ(run.update.Installed(), SampleUpdate::kOld);
  // An added file that can never be inspected cannot be shown to be gone.
  if (run.outcome.kind == ApplyOutcomeKind::kRecoveryRequired) {
    EXPECT_EQ(run.lasts, Lasts::kForGood);
    EXPECT_NE(run.text.find("' could not be inspected "), std::string::npos) << run.text;
    EXPECT_FALSE(SampleUpdate::kOld.contains(run.NameBelow("app").value_or(""))) << run.text;
  }
}

/// All files are old or all are new, and the outcome says which.
void ExpectOldOrNew(const FaultyRun& run) {
  EXPECT_FALSE(run.has_thrown);
  EXPECT_NE(run.outcome.kind, ApplyOutcomeKind::kRecoveryRequired) << run.text;
  EXPECT_EQ(run.ok, run.outcome.kind == ApplyOutcomeKind::kApplied);
  // Without the temporary copies, too.
  EXPECT_EQ(FilesBelow(run.update.folder() / "app"),
            run.ok ? SampleUpdate::kNew : SampleUpdate::kOld)
      << run.text;
}

/// No file can be read any more, so nothing is proved.
void ExpectUnverified(const FaultyRun& run) {
  EXPECT_EQ(run.outcome.kind, ApplyOutcomeKind::kRecoveryRequired) << run.text;
}

const std::vector<Mishap> kFailures = {{Lasts::kOnce}, {Lasts::kForGood}};
const std::vector<Mishap> kTwoInARow = {{Lasts::kTwoInARow}};
const std::vector<Mishap> kForAWhile = {{Lasts::kForAWhile}};
const std::vector<Mishap> kDenial = {{Lasts::kOnce, Fate::kDeny}};
const std::vector<Mishap> kEverywhere = {{Lasts::kEverywhere}};
const std::vector<Mishap> kException = {{Lasts::kOnce, Fate::kThrow}};
const std::vector<Mishap> kOddFailures = {
    {Lasts::kTwoInARow}, {Lasts::kOnce, Fate::kFailWhenDone}, {Lasts::kOnce, Fate::kThrow}};

const struct FailureCase {
  Steps steps;
  void (*expect)(const FaultyRun& run);
  const std::vector<Mishap>& mishaps = kFailures;
  std::optional<Call> only{};  ///< the calls that fail; without it all
} kFailureCases[] = {
    {{"extraction", Scenario::kExtraction}, ExpectExtraction},
    {{"extraction over a tree", Scenario::kReextraction}, ExpectExtraction},
    {{"extraction", Scenario::kExtraction}, ExpectExtraction, kTwoInARow},
    {{"extraction over a tree", Scenario::kReextraction}, ExpectExtraction, kException},
    {{"apply", Scenario::kApply}, ExpectApply},
    {{"apply", Scenario::kApply}, ExpectOldOrNew, kOddFailures},
    {{"rollback", Scenario::kRollback, 6}, ExpectRollback},
    {{"rollback", Scenario::kRollback, 6}, ExpectOldOrNew, kOddFailures},
    {{"rollback", Scenario::kRollback, 6}, ExpectOldOrNew, kForAWhile},
    {{"rollback", Scenario::kRollback, 6}, ExpectUnverified, kEverywhere, kRead},
    {{"question before a rollback", Scenario::kRollback, 0, 6}, ExpectOldOrNew, kDenial, kKindOf},
    {{"question before a rollback", Scenario::kRollback, 0, 6}, ExpectOldFiles, kFailures, kKindOf},
    {{"question before a rollback", Scenario::kRollback, 0, 6},
     ExpectOldOrNew,
     kTwoInARow,
     kKindOf},
};

bool CanHappen(const Mishap& mishap, const FileCall& step) {
  if (mishap.fate == Fate::kThrow) return step.call != kClose;  // a destructor closes files
  if (mishap.fate == Fate::kDeny) {
    return SampleUpdate::kPackage.contains(step.file.substr(step.file.rfind('/') + 1));
  }
  // Of the other calls a failure that was done cannot be told from one that was not.
  return mishap.fate != Fate::kFailWhenDone ||
         Calls{kMoveReplacing, kMoveToNewName, kRemove}.contains(step.call);
}

/// Each step meets half of the combinations of a mishap and a fault, or a quarter, by turns.
void TestStep(const FailureCase& c, const FileCall& step) {
  if (c.only && step.call != *c.only) return;
  const unsigned share = &c.mishaps == &kFailures ? 2 : 4;
  unsigned turn = step.number;
  for (const Mishap& mishap : c.mishaps) {
    ++turn;
    if (!CanHappen(mishap, step)) continue;
    for (const SystemFault& fault : kSystemFaults) {
      if (++turn % share != 0 && !TriesEverything()) continue;
      SCOPED_TRACE(fault.error.message() + ", mishap " +
                   std::to_string(static_cast<int>(mishap.lasts)) + "/" +
                   std::to_string(static_cast<int>(mishap.fate)));
      const FaultyRun run(c.steps.scenario, step, mishap, fault);
      EXPECT_EQ(run.update.Damage(), "");
      c.expect(run);
    }
  }
}

TEST(Failures, AreReportedAndLoseNoFile) {
  for (const FailureCase& c : kFailureCases) {
    ForEachStep(c.steps, [&](const FileCall& step) { TestStep(c, step); });
  }
}

// Files are flushed on other threads while the next entries are unpacked.
TEST(Failures, AreThoseOfTheFirstEntry) {
  const struct {
    Call call;  // which fails for the last entry, with a device error
    const char* what;
  } cases[] = {{kCreateNewFileIn, "of the thread that unpacks"}, {kFlush, "of another thread"}};
  const std::string first = "/" + SampleUpdate::kPackage.begin()->first;
  const std::string last = "/" + SampleUpdate::kPackage.rbegin()->first;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const SampleUpdate update(Scenario::kExtraction);
    StartScript(update.folder(), [&](const FileCall& call) {
      if (call.call == kFlush && call.file.ends_with(first)) {
        return Verdict{Fate::kFail, kSystemFaults[2].error};
      }
      const bool fails = call.call == c.call && call.file.ends_with(last);
      return fails ? Verdict{Fate::kFail, kSystemFaults[3].error} : Verdict();
    });
    std::string error;
    EXPECT_FALSE(SampleUpdate::Run(Scenario::kExtraction, update.folder(), &error));
    StopScript();
    EXPECT_EQ(error, "cannot flush extracted file: " + SystemErrorText(kSystemFaults[2].error));
    EXPECT_TRUE(update.ExtractionLeftovers().empty());
  }
}

}  // namespace
}  // namespace zul::test
