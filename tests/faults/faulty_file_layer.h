#pragma once

// A file layer in which a test decides what each call does. It is between the rooms and the real
// file layer, in this test program only.
//
// To wrap one more primitive of core/file_layer.h, add an enumerator here and a line in
// CMakeLists.txt.

#include <functional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "core/file_layer.h"

namespace zul::test {

/// The primitives, by the names that core/file_layer.h gives them.
// clang-format off
enum class Call {
  kOpenForRead, kHoldFolder, kCreateNewFile, kCreateNewFileIn, kOpensExclusively,
  kRead, kReadAt, kWriteSome, kFlush, kClose, kFacts, kSize, kWhereabouts, kTakeTimeAndAttributes,
  kKindOf, kCanonical, kWeaklyCanonical, kAvailableSpace, kVolumeOf, kSizeOf, kNext,
  kCreateDirectoryOnce, kRename, kMoveReplacing, kMoveReplacingWhole, kMoveToNewName, kRemove,
  kRemoveTree,
};
// clang-format on

/// One call of a primitive. What a primitive calls itself is a part of it and does not count.
struct FileCall {
  unsigned number = 0;  ///< from 1; the order of two threads differs from run to run
  Call call{};
  std::string_view name;  ///< of the primitive, for messages
  /// The file or folder, relative to the folder of the script where it is below, with `/`; of two
  /// paths the second. A temporary copy counts as the file that it will replace, and the numbers of
  /// an extraction's folder are left out. Empty for a step of a walk.
  std::string file;
  unsigned turn = 0;  ///< from 1, among the calls of this primitive for this file
  std::thread::id thread;
};

/// True for the same step of two runs, in whatever order their threads came.
[[nodiscard]] inline bool IsSameStep(const FileCall& a, const FileCall& b) {
  return a.call == b.call && a.file == b.file && a.turn == b.turn;
}

enum class Fate {
  kProceed,
  kFail,          ///< the call fails; a write has written half, a flush or close is done
  kFailWhenDone,  ///< the call is done and reports a failure, as a share may do
  kDeny,          ///< only for KindOf: it says that there is no such entry
  kThrow,         ///< the call is done, and then an exception is thrown; never for a close
  kDie,  ///< the process ends: after half of a write, after a flush or close, else before the call
};

/// The exit code of a process that ends with kDie.
inline constexpr int kDied = 77;

struct Verdict {
  Fate fate = Fate::kProceed;
  std::error_code error{};  ///< of a call that fails
};

/// Decides what happens to a call. Runs on the thread that makes the call, never on two at once.
/// Its own calls of the file layer do not count.
using Script = std::function<Verdict(const FileCall&)>;

/// From here on each call counts, on every thread, and the script decides about it. Sleeps end at
/// once. Files are named relative to `folder`.
void StartScript(const fs::Path& folder, Script script);

/// Ends that. Returns the calls since.
std::vector<FileCall> StopScript();

}  // namespace zul::test
