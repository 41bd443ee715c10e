#pragma once

// The layout contract of a package: which files it must hold and where its payload root is. Also
// the checks on paths that every stage which reads or writes payload files applies.

#include <string>
#include <string_view>
#include <vector>

#include "core/path.h"

namespace zul {

/// 1 to 64 single top-level file names, never paths.
using RequiredFileContract = std::vector<std::string>;

[[nodiscard]] bool ValidateRequiredFileContract(const RequiredFileContract& contract,
                                                std::string* error);

/// Finds the payload root in an extracted tree: `stage_dir` itself or its single top-level folder.
[[nodiscard]] bool ResolvePayloadLayout(const fs::Path& stage_dir,
                                        const RequiredFileContract& contract,
                                        fs::Path& payload_root, std::string* error);

/// Fills `missing`, in the contract's order, with the names that are not regular files in `root`.
/// True when it stays empty.
[[nodiscard]] bool FindMissingRequiredFiles(const fs::Path& root,
                                            const RequiredFileContract& contract,
                                            std::vector<std::string>& missing);

/// True when a relative path may be joined to a folder: it has a component and no root, and no
/// component is empty, "." or "..", or holds a control character (below 32) or one of
/// " * / : < > ? \ |. Purely lexical.
[[nodiscard]] bool IsSafeRelativePath(const fs::Path& relative);

/// True when `candidate`, with links resolved, lies below `base`. A folder is not inside itself,
/// and a path that cannot be resolved is inside nothing.
[[nodiscard]] bool IsPathInsideDirectory(const fs::Path& base, const fs::Path& candidate);

/// True when `payload_target` may be written by an update of `target_dir`. `error` may be null.
[[nodiscard]] bool ValidatePayloadTarget(const fs::Path& target_dir, const fs::Path& payload_target,
                                         std::string* error);

}  // namespace zul
