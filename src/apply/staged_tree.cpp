#include "apply/staged_tree.h"

#include <algorithm>
#include <utility>

#include "apply/retry_file_ops.h"
#include "core/text.h"
#include "package/layout.h"

namespace zul {

namespace {

bool IsUnsafeUnit(fs::Path::value_type unit) {
  constexpr std::string_view kForbidden = "\"*:<>?|";
  using Unsigned = std::make_unsigned_t<fs::Path::value_type>;
  if (static_cast<Unsigned>(unit) < 32) return true;
  return std::any_of(kForbidden.begin(), kForbidden.end(),
                     [unit](char c) { return unit == static_cast<fs::Path::value_type>(c); });
}

/// For resolved paths, which hold no ".." and no doubled separator. Either may be empty.
bool LiesBelow(const fs::Path& folder, const fs::Path& path) {
  const auto& base = folder.native();
  const auto& text = path.native();
  return !base.empty() && text.size() > base.size() + 1 && text.starts_with(base) &&
         text[base.size()] == fs::Path::preferred_separator;
}

/// True for a file and for a link to one.
bool IsRegularFile(const fs::DirectoryEntry& entry) {
  if (entry.kind != fs::EntryKind::kLink) return entry.kind == fs::EntryKind::kRegular;
  std::error_code ec;
  return fs::KindOf(entry.path, fs::Links::kFollow, ec) == fs::EntryKind::kRegular;
}

}  // namespace

bool IsSafePayloadPath(const fs::Path& relative) {
  if (relative.empty() || relative.has_root_path()) return false;
  const auto& text = relative.native();
  if (std::any_of(text.begin(), text.end(), IsUnsafeUnit)) return false;
  return std::none_of(relative.begin(), relative.end(), [](const fs::Path& component) {
    return component.empty() || component == "." || component == "..";
  });
}

StagedTreeWalk::StagedTreeWalk(fs::Path staged_root, fs::Path target_root, fs::Path own_executable,
                               const StagedTreeTexts& texts, Resolution resolution)
    : staged_root_(std::move(staged_root)),
      target_root_(std::move(target_root)),
      own_executable_(std::move(own_executable)),
      texts_(texts),
      resolution_(resolution),
      walker_(staged_root_) {}

StagedTreeWalk::Step StagedTreeWalk::Next(StagedFile* file, std::string& error) {
  fs::DirectoryEntry entry;
  std::error_code ec;
  while (walker_.Next(&entry, ec)) {
    if (!IsRegularFile(entry)) continue;
    switch (Judge(entry, file, error)) {
      case Verdict::kInstall:
        return Step::kFile;
      case Verdict::kPassOver:
        break;
      case Verdict::kRefuse:
        return Step::kFailed;
    }
  }
  if (!ec) return Step::kEnd;
  error = FormatSystemFailure(texts_.enumeration, staged_root_, ec);
  return Step::kFailed;
}

StagedTreeWalk::Verdict StagedTreeWalk::Judge(const fs::DirectoryEntry& entry, StagedFile* file,
                                              std::string& error) {
  std::error_code ec;
  file->source = entry.path;
  file->relative = RelativeOf(entry, ec);
  if (ec || file->relative.empty()) {
    error = FormatSystemFailure(texts_.resolution, entry.path, ec);
    return Verdict::kRefuse;
  }
  file->target = target_root_ / file->relative;
  if (!IsSafePayloadPath(file->relative)) {
    error = std::string(texts_.unsafe_path) + PathToUtf8(file->relative) + "'.";
    return Verdict::kRefuse;
  }
  const fs::Path resolved_target = fs::WeaklyCanonical(file->target, ec);
  if (!ec && !own_executable_.empty() && resolved_target == own_executable_) {
    return Verdict::kPassOver;
  }
  if (!MayBeWritten(file->target, resolved_target, error)) return Verdict::kRefuse;

  // A link beside the file that it leads to names that file a second time. To install it again
  // would put the new content in the place of the backup.
  return met_.insert(file->relative.native()).second ? Verdict::kInstall : Verdict::kPassOver;
}

/// A folder on the way that has become a link since it was listed leads out of the root as it was
/// at the first file, and the path is refused. The files of a folder share its resolution, which
/// costs an open; a link is resolved by itself.
fs::Path StagedTreeWalk::RelativeOf(const fs::DirectoryEntry& entry, std::error_code& ec) {
  if (resolved_staged_root_.empty()) {
    resolved_staged_root_ = fs::WeaklyCanonical(staged_root_, ec);
    if (ec) return {};
  }
  if (resolution_ == Resolution::kEachFile || entry.kind != fs::EntryKind::kRegular) {
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

/// The payload target check resolves both of its paths. Here one is resolved already and the other
/// is the same for every file, and an open or two a file counts: what plainly lies below the target
/// root needs no more, and everything else is the check's to judge.
bool StagedTreeWalk::MayBeWritten(const fs::Path& target, const fs::Path& resolved_target,
                                  std::string& error) {
  if (resolved_target_root_.empty()) {
    std::error_code ec;
    resolved_target_root_ = fs::WeaklyCanonical(target_root_, ec);
  }
  return LiesBelow(resolved_target_root_, resolved_target) ||
         ValidatePayloadTarget(target_root_, target, &error);
}

}  // namespace zul
