#pragma once

// The layout contract of a package: which files it must hold and where its payload root is. Also
// the checks on paths that the stages after extraction share.

#include <string>
#include <string_view>
#include <vector>

#include "core/path.h"

namespace zul {

/// 1 to 64 names of top-level files, never paths. Each has 1 to 128 ASCII letters, digits, dots,
/// underscores and hyphens; no two are equal without regard to case.
using RequiredFileContract = std::vector<std::string>;

/// True when `contract` keeps the rules above. On failure `error` (may be null) names the first
/// name that breaks one.
[[nodiscard]] bool ValidateRequiredFileContract(const RequiredFileContract& contract,
                                                std::string* error);

/// Stores the payload root of an extracted tree in `*payload_root`: `stage_dir` itself, or its
/// single top-level folder, whichever holds every required file. False, with the reason in `error`
/// (may be null), when neither does. Does not follow links.
[[nodiscard]] bool ResolvePayloadLayout(const fs::Path& stage_dir,
                                        const RequiredFileContract& contract,
                                        fs::Path* payload_root, std::string* error);

/// Stores the names that are not regular files in `root`, in the contract's order, in `*missing`.
/// True when there are none. Does not follow links in `root`.
[[nodiscard]] bool FindMissingRequiredFiles(const fs::Path& root,
                                            const RequiredFileContract& contract,
                                            std::vector<std::string>* missing);

/// True when a relative path may be joined to a folder: it has a component and no root, and no
/// component is empty, "." or "..", or holds a control character (below 32) or one of
/// " * / : < > ? \ |. Purely lexical.
[[nodiscard]] bool IsSafeRelativePath(const fs::Path& relative);

/// True when `candidate` is below `base` after both are resolved. A folder is not inside itself.
/// False when a path cannot be resolved.
[[nodiscard]] bool IsPathInsideDirectory(const fs::Path& base, const fs::Path& candidate);

/// True when an update of `target_dir` may write `payload_target`: the target, resolved now, is
/// below the resolved folder. `error` may be null.
[[nodiscard]] bool ValidatePayloadTarget(const fs::Path& target_dir, const fs::Path& payload_target,
                                         std::string* error);

}  // namespace zul
