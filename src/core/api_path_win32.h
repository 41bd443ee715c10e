#pragma once

// Paths in the form for Win32 calls, and what the errors of these calls say of a path. For
// _win32.cpp files only.

#include <string>
#include <string_view>
#include <system_error>

#include "core/path.h"

namespace zul::fs {

/// The text to pass to a W call. An absolute path ("C:\x", "\\server\share\x") becomes lexically
/// normal, with backslashes, without a trailing separator unless it is a root, and with the prefix
/// "\\?\". The prefix permits more than 260 characters and makes reserved names ("nul") plain
/// names. Any other path stays unchanged; the system resolves it against the current directory.
[[nodiscard]] std::wstring ApiPath(const Path& path);

/// As `ApiPath`, after a relative path was made absolute. Empty when the system cannot do that.
[[nodiscard]] std::wstring AbsoluteApiPath(const Path& path);

/// True when `api_path` is only a root ("\\?\C:\").
[[nodiscard]] bool IsApiRoot(std::wstring_view api_path);

/// Number of characters in the root of `api_path`, including the separator after it. 0 without the
/// prefix "\\?\".
[[nodiscard]] std::size_t ApiRootLength(std::wstring_view api_path);

/// True for the codes of a path that cannot have an entry: file or path not found, an invalid name,
/// and a file in the place of a folder. False for a server or share that does not answer (53, 67):
/// what is on it is unknown, and it may answer a second later.
[[nodiscard]] bool MeansNothingThere(const std::error_code& ec);

/// The path without the prefix "\\?\".
[[nodiscard]] Path PathFromApi(std::wstring_view api_path);

}  // namespace zul::fs
