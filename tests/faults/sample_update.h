#pragma once

// A small update with files that are replaced, added, kept and retired, in old and new folders;
// what must hold for it when anything fails; and its steps, which are the calls of a run in which
// nothing fails.

#include <optional>

#include "apply/apply.h"
#include "tests/faults/faulty_file_layer.h"
#include "tests/support/environment.h"
#include "tests/support/temp_folder.h"

namespace zul::test {

enum class Scenario {
  kUpdate,        ///< extraction and apply
  kExtraction,    ///< extraction alone
  kReextraction,  ///< extraction alone, over an older tree at its destination
  kApply,         ///< apply alone
  kRollback,      ///< apply alone, which fails after its last change
};

class SampleUpdate {
 public:
  /// Writes package and installation to a fresh folder, or to `place`, which must not exist and is
  /// not removed.
  explicit SampleUpdate(Scenario scenario, const fs::Path& place = {});

  /// Runs the scenario in the folder of a sample update. True on success.
  static bool Run(Scenario scenario, const fs::Path& folder, std::string* error = nullptr,
                  ApplyOutcome* outcome = nullptr);

  static const Files kOld;      ///< the installation before the update
  static const Files kPackage;  ///< what the package holds
  static const Files kNew;      ///< the installation after the update

  /// What the destination of the extraction held before.
  [[nodiscard]] Files FoundAtDestination() const;

  /// The files of the installation, without temporary copies that a dead process left.
  [[nodiscard]] Files Installed() const;

  /// What must never happen, as text: a file that is neither old nor new, an old file that is
  /// neither installed nor in the backup, a destination that is not whole, another file changed.
  /// Empty when nothing of that happened.
  [[nodiscard]] std::string Damage() const;

  /// The folders that an extraction left beside its destination.
  [[nodiscard]] std::vector<fs::Path> ExtractionLeftovers() const;

  [[nodiscard]] const fs::Path& folder() const { return folder_; }

 private:
  [[nodiscard]] bool HasWholeDestination() const;

  const Scenario scenario_;
  const TempFolder fresh_;
  const fs::Path folder_;
  const ScopedEnvironment config_home_;
};

/// Some steps of a scenario, by the number of files that are replaced before them.
struct Steps {
  const char* name;
  Scenario scenario;
  unsigned from_replaced = 0, to_replaced = ~0u;  ///< the last number is left out
};

/// The name of a call's file in a folder of the update ("app"). Nothing when it is elsewhere.
[[nodiscard]] std::optional<std::string> NameBelow(std::string_view folder, const FileCall& call);

/// True with QORVA_FAULTS=all. Otherwise one of 17 steps is tried under Wine and under
/// ThreadSanitizer, where a step takes much longer.
[[nodiscard]] bool TriesEverything();

/// Calls `test` with each of the steps until an assertion fails. Messages name the step.
void ForEachStep(const Steps& steps, const std::function<void(const FileCall& step)>& test);

}  // namespace zul::test
