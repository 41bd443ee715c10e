#pragma once

// The product's per-user folder: where it is, made sure to exist, with a fallback when the normal
// place is out of reach. QORVA_CONFIG_HOME overrides the place.

#include <cstdint>
#include <string>
#include <string_view>

#include "core/path.h"
#include "core/process_environment.h"

namespace zul {

/// A resolved folder or file. Check `path` first and `ready` second: a path may be usable although
/// something went wrong on the way.
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

/// True when `path` is a directory or could be made one, parents included. On failure `error` (may
/// be null) says why.
[[nodiscard]] bool EnsureDirectory(const fs::Path& path, std::string* error);

/// "0x" and eight hexadecimal digits.
[[nodiscard]] std::string FormatHresult(std::uint32_t code);

}  // namespace zul
