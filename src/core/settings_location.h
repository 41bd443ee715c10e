#pragma once

// Where the product's settings.json lives, and the one-time move of the file from the folder of the
// product's old name. The folder that holds it is the application configuration folder.

#include <string>
#include <string_view>

namespace zul {

/// UTF-8 path of settings.json. Carries a legacy file over when there is none yet; whatever fails
/// is logged, and the answer is still a path.
[[nodiscard]] std::string ResolveSettingsPath();

/// Copies the legacy settings at `source` to `target` unless something is there already, which
/// counts as success. The source stays. Paths UTF-8; `error` may be null.
[[nodiscard]] bool MigrateLegacySettings(std::string_view source, std::string_view target,
                                         std::string* error);

/// The folder that holds settings.json, created if missing; empty when settings.json has no parent.
[[nodiscard]] std::string ApplicationConfigDirectory();

}  // namespace zul
