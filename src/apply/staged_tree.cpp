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
                               const StagedTreeTexts& texts)
    : staged_root_(std::move(staged_root)),
      target_root_(std::move(target_root)),
      own_executable_(std::move(own_executable)),
      texts_(texts),
      walker_(staged_root_) {}

StagedTreeWalk::Step StagedTreeWalk::Next(StagedFile* file, std::string& error) {
  fs::DirectoryEntry entry;
  std::error_code ec;
  while (walker_.Next(&entry, ec)) {
    if (!IsRegularFile(entry)) continue;
    switch (Judge(entry.path, file, error)) {
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

StagedTreeWalk::Verdict StagedTreeWalk::Judge(const fs::Path& source, StagedFile* file,
                                              std::string& error) {
  std::error_code ec;
  file->source = source;
  file->relative = RelativeOf(source, ec);
  if (ec || file->relative.empty()) {
    error = FormatSystemFailure(texts_.resolution, source, ec);
    return Verdict::kRefuse;
  }
  file->target = target_root_ / file->relative;
  if (!IsSafePayloadPath(file->relative)) {
    error = std::string(texts_.unsafe_path) + PathToUtf8(file->relative) + "'.";
    return Verdict::kRefuse;
  }
  if (IsOwnExecutable(file->target)) return Verdict::kPassOver;
  if (!ValidatePayloadTarget(target_root_, file->target, &error)) return Verdict::kRefuse;

  // A link beside the file that it leads to names that file a second time. To install it again
  // would put the new content in the place of the backup.
  return met_.insert(file->relative.native()).second ? Verdict::kInstall : Verdict::kPassOver;
}

/// Resolved at this moment: a folder on the way that has become a link since it was listed leads
/// out of the root as it was at the first file, and the path is refused.
fs::Path StagedTreeWalk::RelativeOf(const fs::Path& source, std::error_code& ec) {
  if (resolved_root_.empty()) {
    resolved_root_ = fs::WeaklyCanonical(staged_root_, ec);
    if (ec) return {};
  }
  const fs::Path resolved = fs::WeaklyCanonical(source, ec);
  if (ec) return {};
  return resolved.lexically_relative(resolved_root_);
}

bool StagedTreeWalk::IsOwnExecutable(const fs::Path& target) const {
  if (own_executable_.empty()) return false;
  std::error_code ec;
  const fs::Path resolved = fs::WeaklyCanonical(target, ec);
  return !ec && resolved == own_executable_;
}

}  // namespace zul
