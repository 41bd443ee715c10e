#pragma once

// A file layer that can be told to fail, or to end the process, at its n-th call. It stands between
// the rooms and the real one and is there only in the program that is linked with it.

#include <array>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/file_layer.h"

namespace zul::test {

enum class Fault {
  kNone,
  kDieBefore,   ///< the process ends in the place of the call
  kDieHalfway,  ///< with the first half written; as kDieBefore where nothing is written
  kDieAfter,
  kFail,         ///< this call fails; a write has written half by then
  kFailForGood,  ///< so does every later one of the same kind on the same file
};

struct FaultPlan {
  Fault fault = Fault::kNone;
  unsigned at = 0;  ///< counted from 1
  std::error_code error{};
};

/// The exit code of a process that ended by plan.
inline constexpr int kDied = 77;

/// One call that was made.
struct FileCall {
  std::string_view name;  ///< the function
  /// The file or folder; a temporary copy counts as the file that it is to replace. Empty for the
  /// archive and for a walk.
  fs::Path subject;
  bool ok = false;
};

/// Counts calls from here on, and does to one what the plan says. Sleeps end at once.
void ArmFaults(const FaultPlan& plan);

/// Ends that, and returns the calls since.
std::vector<FileCall> DisarmFaults();

/// What the system says of a denied access, a sharing violation, a full disk and a broken device.
[[nodiscard]] const std::array<std::error_code, 4>& FaultErrors();

/// Whether an operation that waits for locks waits for that one of FaultErrors.
[[nodiscard]] inline bool MayPass(unsigned error_index) {
  return error_index < 2;
}

/// Ends this process here and now: nothing is cleaned up, nothing is written.
[[noreturn]] void EndThisProcess();

}  // namespace zul::test
