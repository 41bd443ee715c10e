#pragma once

// What the text of a Windows path says by itself, without asking the disk or the path library of
// the machine that reads it. Texts are UTF-8; both separators count.

#include <string_view>

namespace zul {

/// How a path text begins.
struct PathStart {
  bool absolute = false;   ///< a drive with a separator behind it, or a UNC server part
  bool root_only = false;  ///< nothing stands behind that beginning
};

/// `C:\x` and `\\server\share` are absolute, `C:x`, `\x` and `x` are not; `C:\` and `\\server\` are
/// nothing but a root.
[[nodiscard]] PathStart PathStartOf(std::string_view text);

/// The text behind the last separator; empty when the text ends in one.
[[nodiscard]] std::string_view FileNameOf(std::string_view text);

/// True for the application's four image names, compared after ASCII lower-casing. (Ordinal
/// case-folding knows no other character that folds to one of theirs.)
[[nodiscard]] bool IsApplicationImageName(std::string_view file_name);

}  // namespace zul
