#pragma once

// A small update with one of everything: files that are replaced, added, left alone and retired, in
// folders that are there and in new ones. And what it must look like, whatever happened to it.

#include <string>
#include <vector>

#include "apply/apply.h"
#include "tests/support/environment.h"
#include "tests/support/temp_folder.h"

namespace zul::test {

enum class Scenario {
  kUpdate,        ///< extraction and apply
  kExtraction,    ///< extraction alone
  kReextraction,  ///< the same, over a tree that stands at its destination
  kApply,         ///< of a tree that stands there
  kRollback,      ///< as kApply, and undone after its last change
};

class SampleUpdate {
 public:
  /// Writes the package and the installation into a fresh folder, or into `place`, which must not
  /// exist and is not removed.
  explicit SampleUpdate(Scenario scenario, const fs::Path& place = {});

  /// Extracts and applies in `folder`, where a sample update lies. True when it succeeded.
  static bool Run(Scenario scenario, const fs::Path& folder, std::string* error = nullptr,
                  ApplyOutcome* outcome = nullptr);

  static const Files kOld;
  static const Files kPackage;
  static const Files kNew;
  [[nodiscard]] static bool IsRetired(const fs::Path& name);

  /// What stood at the destination of the extraction before.
  [[nodiscard]] Files FoundAtDestination() const;

  /// What lies in the installation; temporary copies that a dead process left are not of it.
  [[nodiscard]] Files Installed() const;

  /// What must never be, as text; empty when all is well: a file that is neither old nor new, one
  /// whose old content is nowhere any more, a half-filled destination, a change elsewhere.
  [[nodiscard]] std::string Damage() const;

  /// The folders that an extraction left beside its destination.
  [[nodiscard]] std::vector<std::string> ExtractionLeftovers() const;

  [[nodiscard]] const fs::Path& folder() const { return folder_; }

 private:
  [[nodiscard]] bool HasWholeDestination() const;

  const Scenario scenario_;
  const TempFolder fresh_;
  const fs::Path folder_;
  const ScopedEnvironment config_home_;
};

}  // namespace zul::test
