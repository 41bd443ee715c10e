#pragma once

// Paths as Win32 calls take them, for _win32.cpp files only.

#include <string>
#include <string_view>

#include "core/path.h"

namespace zul::fs {

/// The text to pass to a W call. An absolute path ("C:\x", "\\server\share\x") comes out lexically
/// normal, with backslashes, without a trailing separator unless it is a root, and behind "\\?\",
/// so that it may be longer than 260 characters and names with a meaning of old ("nul") are plain
/// names. Every other path is left alone: the system resolves it against the current directory.
[[nodiscard]] std::wstring ApiPath(const Path& path);

/// As `ApiPath`, with a relative path made absolute first. Empty when the system refuses that.
[[nodiscard]] std::wstring AbsoluteApiPath(const Path& path);

/// True when `api_path` is a root ("\\?\C:\"), which has no name of its own.
[[nodiscard]] bool IsApiRoot(std::wstring_view api_path);

/// How much of `api_path` its root takes, with the separator behind it if there is one.
[[nodiscard]] std::size_t ApiRootLength(std::wstring_view api_path);

/// The path without "\\?\", as the rest of the system knows it.
[[nodiscard]] Path PathFromApi(std::wstring_view api_path);

}  // namespace zul::fs
