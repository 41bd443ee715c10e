// Each call of the file layer failing, once and for good, and what an extraction, an apply and a
// rollback make of it: which kind of failure, which words, and what lies on the disk.

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>

#include "core/system_error.h"
#include "core/text.h"
#include "tests/faults/every_step.h"

namespace zul::test {
namespace {

/// The beginning of a text, behind which the code or the message of the system's error stands
/// somewhere, and the calls whose failure may lead to it.
struct Wording {
  std::string_view text;
  std::string_view calls;
};

constexpr std::string_view kCopying =
    " Close CreateNewFile Flush MoveReplacing OpenForRead Read Size TakeTimeAndAttributes "
    "WriteSome ";

const Wording kWordings[] = {
    // An archive that cannot be read looks like one that is damaged.
    {"cannot open ZIP", " ArchiveOpen ArchiveRead ArchiveSeek "},
    {"invalid ZIP central directory: ", " ArchiveRead ArchiveSeek "},
    {"ZIP end record not found", " ArchiveRead ArchiveSeek "},
    {"ZIP inflate failed: ", " ArchiveRead ArchiveSeek "},
    {"cannot determine free space for ZIP extraction: {message}", " AvailableSpace "},
    {"cannot resolve extraction root", " Whereabouts "},
    {"extracted file resolved outside extraction root", " Whereabouts "},
    {"cannot resolve extracted file path", " Canonical "},
    {"Cannot inspect extraction destination: {message}", " KindOf "},
    {"ZIP extraction directory identity changed", " KindOf "},
    {"Cannot create extraction parent directory: {message}", " CreateDirectoryOnce KindOf "},
    {"Cannot create unique extraction directory: {message}", " CreateDirectoryOnce "},
    {"cannot create extraction directory: {message}", " CreateDirectoryOnce "},
    {"cannot create extracted file exclusively: {message}", " CreateNewFile "},
    {"cannot write extracted file: {message}", " WriteSome "},
    {"cannot flush extracted file: {message}", " Flush "},
    {"cannot close extracted file: {message}", " Close "},
    {"Cannot stage previous extraction directory: {code}", " Rename "},
    {"Cannot finalize extraction directory: {code}", " Rename "},

    {"Staged update directory is missing: '", " KindOf "},
    {"Cannot enumerate staged update tree{code}", " Next "},
    {"Cannot resolve staged relative path {code}", " WeaklyCanonical "},
    {"Update payload target cannot be normalized: '", " WeaklyCanonical "},
    {"Update payload target escapes the update directory: '", " WeaklyCanonical "},
    {"Update target directory cannot be normalized: '", " WeaklyCanonical "},
    {"pre-apply lock probe failed: target='{code}", " OpensExclusively "},
    {"Cannot create rollback backup directory: '{code}", " CreateDirectoryOnce "},
    {"Cannot create rollback path: '{code}", " CreateDirectoryOnce KindOf "},
    {"Cannot create target directory for update: '{code}", " CreateDirectoryOnce KindOf "},
    {"Cannot inspect retired executable target '{code}", " KindOf "},
    {"Cannot inspect staged update for retired executable '{code}", " KindOf "},
    {"retired executable removal failed: {code}", " KindOf Remove "},
    {"retired executable rollback backup failed: {code}", kCopying},
    {"rollback backup copy failed: {code}", kCopying},
    {"apply update copy failed: {code}", kCopying},
};

bool IsIn(std::string_view names, std::string_view name) {
  return names.find(" " + std::string(name) + " ") != names.npos;
}

bool IsWorded(std::string_view call, const std::string& text, const std::error_code& error) {
  const std::string code = "code=" + std::to_string(error.value()) + ", ";
  return std::any_of(std::begin(kWordings), std::end(kWordings), [&](const Wording& wording) {
    const std::string_view start = wording.text.substr(0, wording.text.find('{'));
    if (!IsIn(wording.calls, call) || !text.starts_with(start)) return false;
    if (start.size() == wording.text.size()) return true;
    const bool has_code = wording.text.ends_with("{code}");
    return text.find(has_code ? code : SystemErrorText(error), start.size()) != text.npos;
  });
}

/// One run with one fault.
class FaultyRun {
 public:
  FaultyRun(Scenario scenario, Fault fault, unsigned at, unsigned error_index)
      : plan_{fault, at, FaultErrors().at(error_index)},
        passes_(fault == Fault::kFail && error_index < 2),
        update_(scenario) {
    ArmFaults(plan_);
    ok_ = SampleUpdate::Run(scenario, update_.folder(), &error_, &outcome_);
    calls_ = DisarmFaults();
    call_ = calls_.at(at - 1);
    EXPECT_EQ(update_.Damage(), "");
  }

  void ExpectExtractionKeepsItsPromises() const {
    EXPECT_EQ(update_.Installed(), SampleUpdate::kOld);
    const std::vector<std::string> leftovers = update_.ExtractionLeftovers();
    constexpr std::string_view kPreserved = "; previous destination preserved at ";
    if (const std::size_t at = error_.find(kPreserved); at != std::string::npos) {
      EXPECT_EQ(FilesBelow(*PathFromUtf8(error_.substr(at + kPreserved.size()))),
                update_.FoundAtDestination());
      ASSERT_EQ(leftovers.size(), 1u);
      EXPECT_TRUE(leftovers[0].starts_with(".qorva-zip-backup."));
    } else {
      // What should be removed and cannot be stays, and the outcome stands.
      EXPECT_TRUE(leftovers.empty() || IsIn(" KindOf RemoveTree ", call_.name));
      EXPECT_EQ(FilesBelow(update_.folder() / "work/payload"),
                ok_ ? SampleUpdate::kPackage : update_.FoundAtDestination());
    }
    EXPECT_TRUE(call_.name != "Rename" || ok_ == passes_);
    EXPECT_TRUE(ok_ || IsWorded(call_.name, error_, plan_.error)) << error_;
  }

  void ExpectApplyKeepsItsPromises() const {
    EXPECT_TRUE(!IsRetried() || ok_ == passes_);
    EXPECT_EQ(outcome_.kind, ok_            ? ApplyOutcomeKind::kApplied
                             : HasChanged() ? ApplyOutcomeKind::kRolledBack
                                            : ApplyOutcomeKind::kFailedBeforeChange);
    EXPECT_EQ(FilesBelow(update_.folder() / "app"), ok_ ? SampleUpdate::kNew : SampleUpdate::kOld);
    EXPECT_TRUE(ok_ || IsWorded(call_.name, error_, plan_.error)) << error_;
    constexpr std::string_view kUndone =
        " Rollback completed and every restored target was verified.";
    EXPECT_EQ(error_.ends_with(kUndone), !ok_ && HasChanged());
  }

  void ExpectRollbackKeepsItsPromises() const {
    const bool incomplete = outcome_.kind == ApplyOutcomeKind::kRecoveryRequired;
    EXPECT_TRUE(!ok_ && (incomplete || outcome_.kind == ApplyOutcomeKind::kRolledBack));
    EXPECT_TRUE(!IsRetried() || incomplete == !passes_);
    Files installed = update_.Installed();
    Files old = SampleUpdate::kOld;
    if (incomplete) {
      constexpr std::string_view kStart =
          "RECOVERY_REQUIRED: update apply failed: fault injection: apply failed after 8 "
          "successful replacement(s). Rollback was incomplete; do not start QORVA from this "
          "folder. ";
      EXPECT_TRUE(error_.starts_with(kStart)) << error_;
      EXPECT_EQ(outcome_.message, error_);
      // Every file but the one that is named is back, and all backups are there.
      const std::string name = NameBelow("work/rollback_backup").value_or(*NameBelow("app"));
      const std::string named = PathToUtf8(PathFromUtf8(name)->make_preferred()) + "'";
      EXPECT_NE(error_.find(named), std::string::npos) << error_;
      installed.erase(name);
      old.erase(name);
    }
    EXPECT_EQ(installed, old);
    Files replaced = SampleUpdate::kOld;
    replaced.erase("mine.txt");
    EXPECT_EQ(FilesBelow(update_.folder() / "work/rollback_backup"), replaced);
  }

  /// Of an apply that fails after its last change, whatever it made of the call before.
  void ExpectWholeUndoing() const {
    // An added file that can never be inspected is the exception: it cannot be shown to be gone.
    if (outcome_.kind == ApplyOutcomeKind::kRecoveryRequired) {
      EXPECT_EQ(plan_.fault, Fault::kFailForGood);
      EXPECT_NE(error_.find("' could not be inspected "), std::string::npos) << error_;
      EXPECT_FALSE(SampleUpdate::kOld.contains(NameBelow("app").value_or(""))) << error_;
    }
    EXPECT_EQ(update_.Installed(), SampleUpdate::kOld);
  }

 private:
  /// The name in a folder of the update of what the call was about, when it is there.
  [[nodiscard]] std::optional<std::string> NameBelow(std::string_view folder) const {
    const fs::Path name = call_.subject.lexically_relative(update_.folder() / folder);
    if (name.empty() || *name.begin() == "..") return std::nullopt;
    return PathToGenericUtf8(name);
  }

  /// Whether the call is one of an operation that waits for a lock to pass, and that cannot do
  /// without it. A file that was written is closed right behind its flush.
  [[nodiscard]] bool IsRetried() const {
    if (!NameBelow("app") && !NameBelow("work/rollback_backup")) return false;
    if (call_.name == "Close") return calls_.at(plan_.at - 2).name == "Flush";
    return IsIn(" CreateNewFile Flush MoveReplacing TakeTimeAndAttributes WriteSome Size ",
                call_.name);
  }

  /// Whether a change was under way when the call was made; a removal is one from its start.
  [[nodiscard]] bool HasChanged() const {
    const auto failed = calls_.begin() + plan_.at - 1;
    const auto removes = [](const FileCall& call) {
      return call.name == "Remove" && SampleUpdate::IsRetired(call.subject.filename());
    };
    return removes(*failed) || std::any_of(calls_.begin(), failed, [&](const FileCall& call) {
             return removes(call) || call.name == "MoveReplacing";
           });
  }

  const FaultPlan plan_;
  const bool passes_;
  const SampleUpdate update_;
  bool ok_ = false;
  std::string error_;
  ApplyOutcome outcome_;
  std::vector<FileCall> calls_;
  FileCall call_;
};

struct FailureCase {
  const char* name;
  Scenario scenario;
  void (FaultyRun::*expect)() const;
  unsigned from = 0;  ///< faults start behind so many replaced files
  unsigned to = ~0u;
  std::string_view only = {};  ///< faults only in this call
};

const FailureCase kFailureCases[] = {
    {"extraction", Scenario::kExtraction, &FaultyRun::ExpectExtractionKeepsItsPromises},
    {"reextraction", Scenario::kReextraction, &FaultyRun::ExpectExtractionKeepsItsPromises},
    {"apply", Scenario::kApply, &FaultyRun::ExpectApplyKeepsItsPromises},
    {"rollback", Scenario::kRollback, &FaultyRun::ExpectRollbackKeepsItsPromises, 6},
    {"question", Scenario::kRollback, &FaultyRun::ExpectWholeUndoing, 0, 6, "KindOf"},
};

TEST(Failures, EveryOneIsToldAndNoneLosesAFile) {
  for (const FailureCase& row : kFailureCases) {
    ForEachStep(row.name, row.scenario, row.from, row.to, [&](const auto& calls, unsigned at) {
      if (!row.only.empty() && calls[at - 1].name != row.only) return;
      for (const Fault fault : {Fault::kFail, Fault::kFailForGood}) {
        for (unsigned error = 0; error < FaultErrors().size(); ++error) {
          if (!TriesEverything() && (at + error + static_cast<unsigned>(fault)) % 2 != 0) continue;
          SCOPED_TRACE((fault == Fault::kFail ? "once, error " : "for good, error ") +
                       std::to_string(error));
          (FaultyRun(row.scenario, fault, at, error).*row.expect)();
        }
      }
    });
  }
}

}  // namespace
}  // namespace zul::test
