#include "apply/retired_executables.h"

#include "apply/retry_file_ops.h"
#include "core/text.h"
#include "package/layout.h"

namespace zul {

bool ListRetiredExecutables(const fs::Path& staged_root, const fs::Path& target_root,
                            std::vector<fs::Path>* removals, std::string* error) {
  using fs::EntryKind;
  removals->clear();
  for (const std::string_view name : kRetiredExecutables) {
    std::error_code ec;
    const fs::Path staged = staged_root / name;
    const EntryKind staged_kind = fs::KindOf(staged, fs::Links::kFollow, ec);
    if (staged_kind == EntryKind::kUnknown) {
      *error =
          FormatSystemFailure("Cannot inspect staged update for retired executable '", staged, ec);
      return false;
    }
    if (staged_kind != EntryKind::kNotFound) continue;

    const fs::Path target = target_root / name;
    const EntryKind target_kind = fs::KindOf(target, fs::Links::kFollow, ec);
    if (target_kind == EntryKind::kUnknown) {
      *error = FormatSystemFailure("Cannot inspect retired executable target '", target, ec);
      return false;
    }
    if (target_kind == EntryKind::kNotFound) continue;
    if (target_kind != EntryKind::kRegular) {
      *error = "Retired executable target is not a regular root-level file: '" +
               PathToUtf8(target) + "'.";
      return false;
    }
    if (!ValidatePayloadTarget(target_root, target, error)) return false;
    removals->push_back(target);
  }
  return true;
}

}  // namespace zul
