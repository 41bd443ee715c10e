#pragma once

// The answer to --print-app-version-json.

namespace zul {

/// True when any argument from element 1 on is exactly --print-app-version-json.
[[nodiscard]] bool AsksForVersion(int argc, const wchar_t* const* argv);

/// Writes the version JSON and one line feed to the standard output, if there is one. Always exit
/// code 0.
[[nodiscard]] int PrintAppVersion();

}  // namespace zul
