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
  kDieHalfway,  ///< the same, with the first half of a WriteSome written
  kDieAfter,
  kFail,         ///< this call fails; a write has written half by then
  kFailForGood,  ///< so does every later one of the same kind on the same file
};

struct FaultPlan {
  Fault fault = Fault::kNone;
  unsigned at = 0;  ///< counted from 1
  std::error_code error{};
};

/// One call that was made.
struct FileCall {
  std::string_view name;  ///< the function
  /// The file or folder; a temporary copy counts as the file that it is to replace. Empty for the
  /// archive, a walk, an open folder, and a call that another one makes.
  fs::Path subject;
};

/// Counts calls from here on, and does to one what the plan says. Sleeps end at once.
void ArmFaults(const FaultPlan& plan);

/// Ends that, and returns the calls since.
std::vector<FileCall> DisarmFaults();

/// What the system says of a denied access, a sharing violation, a full disk and a broken device.
/// An operation that waits for locks waits for the first two.
[[nodiscard]] std::array<std::error_code, 4> FaultErrors();

}  // namespace zul::test
