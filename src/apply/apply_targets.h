#pragma once

// The files that an apply changes: the files of the staged tree, which it installs, and the retired
// executables, which it removes.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "core/file_layer.h"

namespace zul {

/// One file to install.
struct StagedFile {
  fs::Path source;               ///< in the staged tree, links not resolved
  fs::Path relative;             ///< relative to the staged root, links resolved
  fs::Path target;               ///< the target root joined with `relative`
  std::uint64_t size_bytes = 0;  ///< of the source, as the listing reports it
  fs::EntryKind target_kind{};   ///< of the target, links not followed
  /// The target's folder, which keeps its path while it is held. Null for a folder that is missing
  /// or cannot be held: then the check of the target is worth nothing a moment later.
  std::shared_ptr<const fs::File> target_folder;
};

/// The failure texts of a walk, each up to and including the quote before the path.
struct StagedTreeTexts {
  std::string_view enumeration;
  std::string_view resolution;
  std::string_view unsafe_path;
};

/// One walk over the files of a staged tree, in the system's order. An apply walks the tree twice:
/// once to validate it before the first change, and once to install it. Another process can change
/// the tree in between, so both walks check every file. The files of one folder share what
/// resolving their folders costs: the listing shows which of them are links, and those are resolved
/// one by one. Folders, links to folders and other entries that are not files are left out. So is
/// the running executable, which an apply never replaces.
class StagedTreeWalk {
 public:
  enum class Step { kFile, kEnd, kFailed };

  /// `own_executable` is the resolved path of the running executable; the empty path matches no
  /// file.
  StagedTreeWalk(fs::Path staged_root, fs::Path target_root, fs::Path own_executable,
                 const StagedTreeTexts& texts);

  /// Finds the next file that may be installed. The walk is over after kEnd and after kFailed,
  /// which leaves the reason in `error`.
  [[nodiscard]] Step Next(StagedFile* file, std::string* error);

 private:
  enum class Verdict { kInstall, kLeaveOut, kRefuse };

  [[nodiscard]] Verdict Judge(const fs::DirectoryEntry& entry, StagedFile* file,
                              std::string* error);
  [[nodiscard]] fs::Path RelativeOf(const fs::DirectoryEntry& entry, std::error_code& ec);
  [[nodiscard]] fs::Path ResolveTarget(StagedFile* file, std::error_code& ec);
  void EnterTargetFolder(const fs::Path& folder);
  [[nodiscard]] bool MayBeWritten(const fs::Path& target, const fs::Path& resolved_target,
                                  std::string* error);

  const fs::Path staged_root_;
  const fs::Path target_root_;
  const fs::Path own_executable_;
  const StagedTreeTexts texts_;
  fs::TreeWalker walker_;
  // The two roots, links resolved; empty before the first file.
  fs::Path resolved_staged_root_;
  fs::Path resolved_target_root_;
  // The folder that was resolved last, and its resolved path relative to the staged root.
  fs::Path folder_;
  fs::Path relative_folder_;
  // The target folder of the last file. Its resolved path is valid while it is held.
  fs::Path target_folder_;
  fs::Path resolved_target_folder_;
  std::shared_ptr<const fs::File> held_target_folder_;
  std::unordered_set<fs::Path::string_type> found_;  // the relative path of each file
};

/// The names of the retired executables, lower-case, in the order of their removal.
[[nodiscard]] std::span<const std::string_view> RetiredExecutableNames();

/// Lists the retired executables: programs of earlier versions whose names the current layout no
/// longer uses. If they stayed in the installation, a shortcut could start an old program. Fills
/// `removals`, in the fixed order of the names, with the paths of those that are in `target_root`
/// and not in `staged_root`. False with the reason in `error` when one cannot be inspected, is not
/// a regular file or may not be written. Changes nothing.
[[nodiscard]] bool ListRetiredExecutables(const fs::Path& staged_root, const fs::Path& target_root,
                                          std::vector<fs::Path>* removals, std::string* error);

}  // namespace zul
