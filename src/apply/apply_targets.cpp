#include "apply/apply_targets.h"

#include <array>
#include <utility>

#include "apply/retry_file_ops.h"
#include "core/failure.h"
#include "core/text.h"
#include "package/layout.h"

namespace zul {

namespace {

/// File names at the top level of an installation, in the order of their removal.
constexpr std::array<std::string_view, 5> kRetiredExecutables = {
    "qorva.exe", "zul_rip_gui.exe", "zul_rip.exe", "zul_updater.exe", "qorva_nest_bench.exe"};

/// For resolved paths, which hold no ".." and no doubled separator. Either may be empty.
bool IsBelow(const fs::Path& folder, const fs::Path& path) {
  const auto& base = folder.native();
  const auto& text = path.native();
  return !base.empty() && text.size() > base.size() + 1 && text.starts_with(base) &&
         text[base.size()] == fs::Path::preferred_separator;
}

/// True for a file and for a link to a file.
bool IsFile(const fs::DirectoryEntry& entry) {
  return entry.kind == fs::EntryKind::kLink ? fs::IsRegularFile(entry.path)
                                            : entry.kind == fs::EntryKind::kRegular;
}

}  // namespace

StagedTreeWalk::StagedTreeWalk(fs::Path staged_root, fs::Path target_root, fs::Path own_executable,
                               const StagedTreeTexts& texts)
    : staged_root_(std::move(staged_root)),
      target_root_(std::move(target_root)),
      own_executable_(std::move(own_executable)),
      texts_(texts),
      walker_(staged_root_) {}

StagedTreeWalk::Step StagedTreeWalk::Next(StagedFile* file, std::string* error) {
  fs::DirectoryEntry entry;
  std::error_code ec;
  while (walker_.Next(&entry, ec)) {
    if (!IsFile(entry)) continue;
    switch (Judge(entry, file, error)) {
      case Verdict::kInstall:
        return Step::kFile;
      case Verdict::kLeaveOut:
        break;
      case Verdict::kRefuse:
        return Step::kFailed;
    }
  }
  if (!ec) return Step::kEnd;
  Fail(error, FormatSystemFailure(texts_.enumeration, staged_root_, ec));
  return Step::kFailed;
}

StagedTreeWalk::Verdict StagedTreeWalk::Judge(const fs::DirectoryEntry& entry, StagedFile* file,
                                              std::string* error) {
  std::error_code ec;
  file->source = entry.path;
  file->size_bytes = entry.size_bytes;
  if (entry.kind == fs::EntryKind::kLink) file->size_bytes = fs::SizeOf(entry.path, ec);
  file->relative = RelativeOf(entry, ec);
  if (ec || file->relative.empty()) {
    Fail(error, FormatSystemFailure(texts_.resolution, entry.path, ec));
    return Verdict::kRefuse;
  }
  file->target = target_root_ / file->relative;
  if (!IsSafeRelativePath(file->relative)) {
    Fail(error, texts_.unsafe_path, PathToUtf8(file->relative) + "'.");
    return Verdict::kRefuse;
  }
  const fs::Path resolved_target = ResolveTarget(file, ec);
  if (!ec && !own_executable_.empty() && resolved_target == own_executable_) {
    return Verdict::kLeaveOut;
  }
  if (!MayBeWritten(file->target, resolved_target, error)) return Verdict::kRefuse;

  // A link to a file of the same tree gives that file a second time. Installing it again would
  // replace the backup of the old content with the new content.
  return found_.insert(file->relative.native()).second ? Verdict::kInstall : Verdict::kLeaveOut;
}

/// The path of an entry relative to the staged root, links resolved; empty when there is none.
/// When a folder is replaced by a link after it was listed, its files resolve to a place outside
/// the staged root. The result then begins with "..", and the caller refuses it. The files of one
/// folder share that folder's resolution, which costs an open; a link is resolved by itself.
fs::Path StagedTreeWalk::RelativeOf(const fs::DirectoryEntry& entry, std::error_code& ec) {
  if (resolved_staged_root_.empty()) {
    resolved_staged_root_ = fs::WeaklyCanonical(staged_root_, ec);
    if (ec) return {};
  }
  if (entry.kind != fs::EntryKind::kRegular) {
    const fs::Path resolved = fs::WeaklyCanonical(entry.path, ec);
    return ec ? fs::Path() : resolved.lexically_relative(resolved_staged_root_);
  }
  fs::Path folder = entry.path.parent_path();
  if (folder != folder_) {
    const fs::Path resolved = fs::WeaklyCanonical(folder, ec);
    if (ec) return {};
    folder_ = std::move(folder);
    relative_folder_ = resolved.lexically_relative(resolved_staged_root_);
  }
  if (relative_folder_.empty()) return {};
  return (relative_folder_ / entry.path.filename()).lexically_normal();
}

/// The resolved path of the target. The targets of one folder share that folder's resolution while
/// it is held. A folder that is not held can become a link at any time, so its targets are resolved
/// one by one. So is a target that is a link, and so are the targets in the folder of the running
/// executable: the system reports the name that the file has, which may differ from the staged one
/// in case.
fs::Path StagedTreeWalk::ResolveTarget(StagedFile* file, std::error_code& ec) {
  const fs::Path folder = file->target.parent_path();
  if (folder != target_folder_ || held_target_folder_ == nullptr) EnterTargetFolder(folder);
  file->target_folder = held_target_folder_;
  file->target_kind = fs::KindOf(file->target, fs::Links::kDoNotFollow, ec);
  const bool is_plain =
      file->target_kind == fs::EntryKind::kRegular || file->target_kind == fs::EntryKind::kNotFound;
  if (!is_plain || held_target_folder_ == nullptr ||
      resolved_target_folder_ == own_executable_.parent_path()) {
    return fs::WeaklyCanonical(file->target, ec);
  }
  return resolved_target_folder_ / file->target.filename();
}

void StagedTreeWalk::EnterTargetFolder(const fs::Path& folder) {
  std::error_code ec;
  auto held = std::make_shared<fs::File>(fs::HoldFolder(folder, ec));
  if (!ec) resolved_target_folder_ = held->Whereabouts(ec);
  held_target_folder_ = ec ? nullptr : std::move(held);
  target_folder_ = folder;
}

/// ValidatePayloadTarget resolves both of its paths, which costs two opens a file. Here the target
/// is resolved already, and the target root is resolved once for all files. A target that is below
/// that root needs no other check; every other target is left to ValidatePayloadTarget.
bool StagedTreeWalk::MayBeWritten(const fs::Path& target, const fs::Path& resolved_target,
                                  std::string* error) {
  if (resolved_target_root_.empty()) {
    std::error_code ec;
    resolved_target_root_ = fs::WeaklyCanonical(target_root_, ec);
  }
  return IsBelow(resolved_target_root_, resolved_target) ||
         ValidatePayloadTarget(target_root_, target, error);
}

std::span<const std::string_view> RetiredExecutableNames() {
  return kRetiredExecutables;
}

bool ListRetiredExecutables(const fs::Path& staged_root, const fs::Path& target_root,
                            std::vector<fs::Path>* removals, std::string* error) {
  using fs::EntryKind;
  removals->clear();
  for (const std::string_view name : kRetiredExecutables) {
    std::error_code ec;
    const fs::Path staged = staged_root / name;
    const EntryKind staged_kind = fs::KindOf(staged, fs::Links::kFollow, ec);
    if (staged_kind == EntryKind::kUnknown) {
      return Fail(error, FormatSystemFailure(
                             "Cannot inspect staged update for retired executable '", staged, ec));
    }
    if (staged_kind != EntryKind::kNotFound) continue;

    const fs::Path target = target_root / name;
    const EntryKind target_kind = fs::KindOf(target, fs::Links::kFollow, ec);
    if (target_kind == EntryKind::kUnknown) {
      return Fail(error,
                  FormatSystemFailure("Cannot inspect retired executable target '", target, ec));
    }
    if (target_kind == EntryKind::kNotFound) continue;
    if (target_kind != EntryKind::kRegular) {
      return Fail(error, "Retired executable target is not a regular root-level file: '",
                  PathToUtf8(target) + "'.");
    }
    if (!ValidatePayloadTarget(target_root, target, error)) return false;
    removals->push_back(target);
  }
  return true;
}

}  // namespace zul
