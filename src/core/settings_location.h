#pragma once

// The location of the product's settings.json, and its one-time migration from the folder of the
// product's old name. The folder of settings.json is the application configuration folder.

#include <string>
#include <string_view>

namespace zul {

/// UTF-8 path of settings.json. When the file is missing, migrates a legacy one. Failures are
/// logged; the result is always a path.
[[nodiscard]] std::string ResolveSettingsPath();

/// Copies the legacy settings at `source` to `target` (UTF-8 paths). An existing target stays
/// unchanged and is a success. The source remains. On failure `*error` (may be null) has the
/// reason.
[[nodiscard]] bool MigrateLegacySettings(std::string_view source, std::string_view target,
                                         std::string* error);

/// The folder that holds settings.json, created if missing; empty when settings.json has no parent.
[[nodiscard]] std::string ApplicationConfigDirectory();

}  // namespace zul
