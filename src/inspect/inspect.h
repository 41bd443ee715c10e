#pragma once

// qorva_inspect as one function: what a person or a program reads for a command line.

#include <string>
#include <vector>

namespace zul {

enum InspectStatus : int {
  kInspectFine = 0,
  kInspectRefused = 1,  ///< the package is refused, the run has failed, a promise is broken
  kInspectNotDone = 2,  ///< the inspection could not be carried out
};

struct InspectOutput {
  int status = kInspectNotDone;
  std::string out;  ///< for standard output, UTF-8
  std::string err;  ///< for standard error, UTF-8
};

/// Carries out the command line `arguments` (UTF-8, without the program's name). Reads the disk;
/// `package` also writes to the temporary folder and removes it again.
[[nodiscard]] InspectOutput RunInspect(const std::vector<std::string>& arguments, bool colours);

}  // namespace zul
