#pragma once

// The product's per-user folder. It is created when it is missing, and there is a fallback when the
// system does not report the normal location. The environment variable QORVA_CONFIG_HOME overrides
// the location.

#include <cstdint>
#include <string>
#include <string_view>

#include "core/path.h"
#include "core/process_environment.h"

namespace zul {

/// A resolved folder or file. Check `path` first and `ready` second: the path may be usable even
/// when `error` has text.
struct AppPathResult {
  std::string path;            ///< UTF-8
  bool ready = false;          ///< the folder exists or was created
  bool used_fallback = false;  ///< the normal location could not be determined
  std::string error;           ///< what went wrong; several reasons are joined with "; "
};

/// The per-user folder named `app_dir_name`, created if missing.
[[nodiscard]] AppPathResult ResolveAppDataDirectory(std::string_view app_dir_name);

/// The file `filename` in that folder; the file itself is not touched.
[[nodiscard]] AppPathResult ResolveAppFile(std::string_view app_dir_name,
                                           std::string_view filename);

/// Creates the directory with its parents unless it exists. On failure `*error` (may be null) has
/// the reason.
[[nodiscard]] bool EnsureDirectory(const fs::Path& path, std::string* error);

/// "0x" and eight hexadecimal digits.
[[nodiscard]] std::string FormatHresult(std::uint32_t code);

}  // namespace zul
