// Each call of the file layer failing, once and for good, and what an extraction, an apply and a
// rollback make of it: which kind of failure, which words, and what lies on the disk.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>

#include "core/system_error.h"
#include "core/text.h"
#include "tests/faults/every_step.h"

namespace zul::test {
namespace {

/// The beginnings of the texts that a failed call may lead to; behind a beginning stands the code
/// or the message of the system's error somewhere.
struct Wording {
  std::string_view call;
  std::vector<std::string_view> texts;
};

// An archive that cannot be read looks like one that is damaged.
const std::vector<std::string_view> kUnreadable = {
    "cannot open ZIP", "invalid ZIP central directory: ", "ZIP end record not found",
    "ZIP inflate failed: "};

const std::vector<Wording> kExtractionWords = {
    {"ArchiveOpen", {"cannot open ZIP"}},
    {"ArchiveRead", kUnreadable},
    {"ArchiveSeek", kUnreadable},
    {"AvailableSpace", {"cannot determine free space for ZIP extraction: {message}"}},
    {"Canonical", {"cannot resolve extracted file path"}},
    {"Close", {"cannot close extracted file: {message}"}},
    {"CreateDirectoryOnce",
     {"Cannot create extraction parent directory: {message}",
      "Cannot create unique extraction directory: {message}",
      "cannot create extraction directory: {message}"}},
    {"CreateNewFile", {"cannot create extracted file exclusively: {message}"}},
    {"Flush", {"cannot flush extracted file: {message}"}},
    {"KindOf",
     {"Cannot create extraction parent directory: {message}",
      "Cannot inspect extraction destination: {message}",
      "ZIP extraction directory identity changed"}},
    {"Rename",
     {"Cannot finalize extraction directory: {code}",
      "Cannot stage previous extraction directory: {code}"}},
    {"Whereabouts",
     {"cannot resolve extraction root", "extracted file resolved outside extraction root"}},
    {"WriteSome", {"cannot write extracted file: {message}"}},
};

const std::vector<std::string_view> kCopies = {"apply update copy failed: {code}",
                                               "retired executable rollback backup failed: {code}",
                                               "rollback backup copy failed: {code}"};

const std::vector<Wording> kApplyWords = {
    {"Close", kCopies},
    {"CreateDirectoryOnce",
     {"Cannot create rollback backup directory: '{code}", "Cannot create rollback path: '{code}",
      "Cannot create target directory for update: '{code}"}},
    {"CreateNewFile", kCopies},
    {"Flush", kCopies},
    {"KindOf",
     {"Cannot create target directory for update: '{code}", "Cannot create rollback path: '{code}",
      "Cannot inspect retired executable target '{code}",
      "Cannot inspect staged update for retired executable '{code}",
      "Staged update directory is missing: '", "retired executable removal failed: {code}"}},
    {"MoveReplacing", {"apply update copy failed: {code}"}},
    {"Next",
     {"Cannot enumerate staged update tree for validation: '{code}",
      "Cannot enumerate staged update tree: '{code}"}},
    {"OpenForRead", kCopies},
    {"OpensExclusively", {"pre-apply lock probe failed: target='{code}"}},
    {"Read", kCopies},
    {"Remove", {"retired executable removal failed: {code}"}},
    {"Size", kCopies},
    {"TakeTimeAndAttributes", kCopies},
    {"WeaklyCanonical",
     {"Cannot resolve staged relative path during validation for '{code}",
      "Cannot resolve staged relative path for '{code}",
      "Update payload target cannot be normalized: '",
      "Update payload target escapes the update directory: '",
      "Update target directory cannot be normalized: '"}},
    {"WriteSome", kCopies},
};

bool Matches(std::string_view pattern, const std::string& text, const std::error_code& error) {
  const std::size_t brace = pattern.find('{');
  const std::string_view start = pattern.substr(0, brace);
  if (!text.starts_with(start)) return false;
  if (brace == std::string_view::npos) return true;
  const std::string wanted = pattern.ends_with("{code}")
                                 ? "code=" + std::to_string(error.value()) + ", "
                                 : SystemErrorText(error);
  return text.find(wanted, start.size()) != std::string::npos;
}

bool IsWorded(const std::vector<Wording>& words, std::string_view call, const std::string& text,
              const std::error_code& error) {
  return std::any_of(words.begin(), words.end(), [&](const Wording& wording) {
    return wording.call == call &&
           std::any_of(wording.texts.begin(), wording.texts.end(),
                       [&](std::string_view pattern) { return Matches(pattern, text, error); });
  });
}

bool IsOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

/// One run with one fault.
class FaultyRun {
 public:
  FaultyRun(Scenario scenario, Fault fault, unsigned at, unsigned error_index)
      : plan_{fault, at, FaultErrors().at(error_index)},
        passes_(fault == Fault::kFail && MayPass(error_index)),
        update_(scenario) {
    ArmFaults(plan_);
    ok_ = update_.Run(&error_, &outcome_);
    calls_ = DisarmFaults();
  }

  void ExpectExtractionKeepsItsPromises() const {
    EXPECT_EQ(update_.Damage(), "");
    EXPECT_EQ(update_.Installed(), SampleUpdate::Old());
    const std::vector<std::string> leftovers = update_.ExtractionLeftovers();
    constexpr std::string_view kPreserved = "; previous destination preserved at ";
    if (const std::size_t at = error_.find(kPreserved); at != std::string::npos) {
      EXPECT_EQ(FilesBelow(*PathFromUtf8(error_.substr(at + kPreserved.size()))),
                update_.FoundAtDestination());
      ASSERT_EQ(leftovers.size(), 1u);
      EXPECT_TRUE(leftovers[0].starts_with(".qorva-zip-backup."));
    } else {
      // What should be removed and cannot be stays, and the outcome stands.
      EXPECT_TRUE(leftovers.empty() || IsOneOf(call().name, {"KindOf", "RemoveTree"}));
      EXPECT_EQ(FilesBelow(update_.folder() / "work" / "payload"),
                ok_ ? SampleUpdate::Package() : update_.FoundAtDestination());
    }
    if (call().name == "Rename") {
      EXPECT_EQ(ok_, passes_);
    }
    EXPECT_TRUE(ok_ || IsWorded(kExtractionWords, call().name, error_, plan_.error)) << error_;
  }

  void ExpectApplyKeepsItsPromises() const {
    EXPECT_EQ(update_.Damage(), "");
    if (is_retried()) {
      EXPECT_EQ(ok_, passes_);
    }
    if (ok_) {
      EXPECT_EQ(outcome_.kind, ApplyOutcomeKind::kApplied);
      EXPECT_EQ(update_.Installed(), SampleUpdate::New());
      return;
    }
    constexpr std::string_view kUndone =
        " Rollback completed and every restored target was verified.";
    EXPECT_EQ(outcome_.kind, changes() == 0 ? ApplyOutcomeKind::kFailedBeforeChange
                                            : ApplyOutcomeKind::kRolledBack);
    EXPECT_EQ(error_.ends_with(kUndone), changes() != 0);
    EXPECT_TRUE(IsWorded(kApplyWords, call().name, error_, plan_.error)) << error_;
    EXPECT_EQ(update_.Installed(), SampleUpdate::Old());
    EXPECT_EQ(update_.Temporaries(), 0u);
  }

  void ExpectRollbackKeepsItsPromises() const {
    EXPECT_EQ(update_.Damage(), "");
    ASSERT_FALSE(ok_);
    if (is_retried()) {
      EXPECT_EQ(outcome_.kind,
                passes_ ? ApplyOutcomeKind::kRolledBack : ApplyOutcomeKind::kRecoveryRequired);
    }
    Files installed = update_.Installed();
    Files old = SampleUpdate::Old();
    if (outcome_.kind == ApplyOutcomeKind::kRecoveryRequired) {
      EXPECT_TRUE(
          error_.starts_with("RECOVERY_REQUIRED: update apply failed: fault injection: apply "
                             "failed after 8 successful replacement(s). Rollback was "
                             "incomplete; do not start QORVA from this folder. "))
          << error_;
      EXPECT_EQ(outcome_.message, error_);
      // Every file but the one that is named is back, and all backups are there.
      const fs::Path name = call().subject.lexically_relative(
          update_.folder() / (InBackups() ? "work/rollback_backup" : "app"));
      EXPECT_NE(error_.find(PathToUtf8(fs::Path(name).make_preferred()) + "'"), std::string::npos)
          << error_;
      installed.erase(PathToGenericUtf8(name));
      old.erase(PathToGenericUtf8(name));
    } else {
      EXPECT_EQ(outcome_.kind, ApplyOutcomeKind::kRolledBack);
    }
    EXPECT_EQ(installed, old);
    EXPECT_EQ(FilesBelow(update_.folder() / "work/rollback_backup"), SampleUpdate::Replaced());
  }

  /// Of an apply that fails after its last change, whatever it made of the call before.
  void ExpectWholeUndoing() const {
    EXPECT_EQ(update_.Damage(), "");
    // An added file that can never be inspected is the exception: it cannot be shown to be gone.
    if (outcome_.kind == ApplyOutcomeKind::kRecoveryRequired) {
      EXPECT_EQ(plan_.fault, Fault::kFailForGood);
      EXPECT_NE(error_.find("' could not be inspected "), std::string::npos) << error_;
      EXPECT_FALSE(SampleUpdate::Old().contains(NameInInstallation())) << error_;
    }
    EXPECT_EQ(update_.Installed(), SampleUpdate::Old());
  }

  [[nodiscard]] bool reached() const { return plan_.at <= calls_.size(); }

 private:
  [[nodiscard]] const FileCall& call() const { return calls_.at(plan_.at - 1); }

  [[nodiscard]] std::string NameInInstallation() const {
    return PathToGenericUtf8(call().subject.lexically_relative(update_.folder() / "app"));
  }

  [[nodiscard]] bool InBackups() const { return Below("work/rollback_backup/"); }

  [[nodiscard]] bool Below(std::string_view folder) const {
    const fs::Path relative = call().subject.lexically_relative(update_.folder());
    return PathToGenericUtf8(relative).starts_with(folder);
  }

  /// Whether the call is one of an operation that waits for a lock to pass, and that cannot do
  /// without it.
  [[nodiscard]] bool is_retried() const {
    if (!Below("app/") && !InBackups()) return false;
    if (call().name == "Close") return Writes();
    return IsOneOf(call().name, {"CreateNewFile", "Flush", "MoveReplacing", "TakeTimeAndAttributes",
                                 "WriteSome", "Size"});
  }

  /// Whether the file was opened for writing when the call was made.
  [[nodiscard]] bool Writes() const {
    for (std::size_t i = plan_.at; i-- > 0;) {
      if (calls_[i].subject != call().subject) continue;
      if (calls_[i].name == "CreateNewFile") return true;
      if (calls_[i].name == "OpenForRead") return false;
    }
    return false;
  }

  /// The changes that were under way when the call was made; a removal is one from its start.
  [[nodiscard]] std::size_t changes() const {
    std::set<fs::Path> changed;
    for (std::size_t i = 0; i < plan_.at; ++i) {
      const fs::Path& file = calls_[i].subject;
      const bool replaced = calls_[i].name == "MoveReplacing" && calls_[i].ok;
      if (replaced || (calls_[i].name == "Remove" && SampleUpdate::IsRetired(file.filename()))) {
        changed.insert(file);
      }
    }
    return changed.size();
  }

  const FaultPlan plan_;
  const bool passes_;
  const SampleUpdate update_;
  bool ok_ = false;
  std::string error_;
  ApplyOutcome outcome_;
  std::vector<FileCall> calls_;
};

struct FailureCase {
  const char* name;
  Scenario scenario;
  unsigned replaced_before;  ///< faults start behind so many replaced files
  void (FaultyRun::*expect)() const;
  std::string_view only = {};  ///< faults only in this call, and before the last change
};

const FailureCase kFailureCases[] = {
    {"extraction", Scenario::kExtraction, 0, &FaultyRun::ExpectExtractionKeepsItsPromises},
    {"reextraction", Scenario::kReextraction, 0, &FaultyRun::ExpectExtractionKeepsItsPromises},
    {"apply", Scenario::kApply, 0, &FaultyRun::ExpectApplyKeepsItsPromises},
    {"rollback", Scenario::kRollback, 6, &FaultyRun::ExpectRollbackKeepsItsPromises},
    {"question", Scenario::kRollback, 0, &FaultyRun::ExpectWholeUndoing, "KindOf"},
};

TEST(Failures, EveryOneIsToldAndNoneLosesAFile) {
  for (const FailureCase& row : kFailureCases) {
    SCOPED_TRACE(row.name);
    const std::vector<FileCall> calls = CallsOf(row.scenario);
    const std::size_t end = row.only.empty() ? calls.size() : StepBehind(calls, 6);
    unsigned runs = 0;
    for (unsigned at = StepBehind(calls, row.replaced_before); at <= end; at += StepWidth()) {
      if (!row.only.empty() && calls[at - 1].name != row.only) continue;
      for (const Fault fault : {Fault::kFail, Fault::kFailForGood}) {
        for (unsigned error = 0; error < FaultErrors().size(); ++error) {
          if (!TriesEverything() && (at + error + static_cast<unsigned>(fault)) % 2 != 0) continue;
          const FaultyRun run(row.scenario, fault, at, error);
          SCOPED_TRACE(Describe(calls, at) + (fault == Fault::kFail ? " once" : " for good") +
                       " error " + std::to_string(error));
          ASSERT_TRUE(run.reached());
          (run.*row.expect)();
          ++runs;
        }
      }
    }
    std::printf("%s: %u runs\n", row.name, runs);
  }
}

}  // namespace
}  // namespace zul::test
