#pragma once

// The temporary folder of one run: the package and the staged tree lie in it. It is removed after a
// success and kept for support after every failure.

#include <string>

namespace zul {

/// Makes a new folder in the system's temporary folder. UTF-8 path; empty on any failure.
[[nodiscard]] std::string CreateUpdateWorkspace();

}  // namespace zul
