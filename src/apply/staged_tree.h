#pragma once

// The files of a staged tree that an apply installs, each judged anew at the moment it is met. The
// apply walks the tree twice, once to validate it before anything changes and once to install it,
// since it may have changed in between; both walks ask the same questions.

#include <string>
#include <string_view>
#include <unordered_set>

#include "core/file_layer.h"

namespace zul {

/// True when a relative path may be joined to a target folder: it has no root, and no component is
/// empty, ".", ".." or holds a control character, a double quote or one of * : < > ? |
[[nodiscard]] bool IsSafePayloadPath(const fs::Path& relative);

struct StagedFile {
  fs::Path source;    ///< as it was met in the staged tree
  fs::Path relative;  ///< to the staged root, links resolved
  fs::Path target;    ///< the target root joined with `relative`
};

/// The failure texts of a walk, each up to and with the quote that opens the path.
struct StagedTreeTexts {
  std::string_view enumeration;
  std::string_view resolution;
  std::string_view unsafe_path;
};

/// One walk, in the system's order. Folders, links to folders and whatever else is not a file are
/// passed over, and so is the running executable, which an apply never replaces.
class StagedTreeWalk {
 public:
  enum class Step { kFile, kEnd, kFailed };

  /// How a file's place in the staged tree is made sure of. The walk that validates resolves each
  /// file. The one that installs follows it closely and resolves each folder: a file that has
  /// become a link since then is told by its kind.
  enum class Resolution { kEachFile, kEachFolder };

  /// `own_executable` is the resolved path of the running executable; empty matches nothing.
  StagedTreeWalk(fs::Path staged_root, fs::Path target_root, fs::Path own_executable,
                 const StagedTreeTexts& texts, Resolution resolution);

  /// The next file that may be installed. After kFailed, with the reason in `error`, and after
  /// kEnd the walk is over.
  [[nodiscard]] Step Next(StagedFile* file, std::string& error);

 private:
  enum class Verdict { kInstall, kPassOver, kRefuse };

  [[nodiscard]] Verdict Judge(const fs::DirectoryEntry& entry, StagedFile* file,
                              std::string& error);
  [[nodiscard]] fs::Path RelativeOf(const fs::DirectoryEntry& entry, std::error_code& ec);
  [[nodiscard]] bool MayBeWritten(const fs::Path& target, const fs::Path& resolved_target,
                                  std::string& error);

  const fs::Path staged_root_;
  const fs::Path target_root_;
  const fs::Path own_executable_;
  const StagedTreeTexts texts_;
  const Resolution resolution_;
  fs::TreeWalker walker_;
  // Of the two roots, from the first file on.
  fs::Path resolved_staged_root_;
  fs::Path resolved_target_root_;
  // Of the file met last: its folder, and that relative to the staged root, links resolved.
  fs::Path folder_;
  fs::Path relative_folder_;
  std::unordered_set<fs::Path::string_type> met_;
};

}  // namespace zul
