#pragma once

// What tests need from a file system beside the file layer: links, read-only files, a full device.

#include <chrono>
#include <string>

#include "core/file_layer.h"
#include "tests/support/temp_folder.h"

namespace zul::test {

inline constexpr bool kOnWindows = fs::Path::preferred_separator == '\\';
inline constexpr const char* kNullDevice = kOnWindows ? "nul" : "/dev/null";

/// True under Wine. Its links are the host's: a link to a folder shows as a reparse point, one to a
/// file looks like its target, a dangling one is not seen, and removing any of them removes the
/// target.
[[nodiscard]] bool RunsUnderWine();

/// Makes a symbolic link at `link`; `target` is absolute, or relative to the link's folder, and
/// need not exist. Under Wine the host's `ln` makes it. False where this user may not make links.
[[nodiscard]] bool MakeLink(const fs::Path& target, const fs::Path& link);

/// Removes a tree with the host's tools. Only Wine needs it, where links cannot be removed from
/// inside; does nothing elsewhere, and does not wait.
void RemoveHostTree(const fs::Path& path);

/// Takes write permission from a file: the read-only attribute on Windows.
void MakeReadOnly(const fs::Path& path);
[[nodiscard]] bool IsReadOnly(const fs::Path& path);

/// Sets the last-write time of a file or folder to `age` ago.
void MakeOlder(const fs::Path& path, std::chrono::seconds age);

/// A volume of 1 to 4 MiB, to be filled. Natively one is mounted for this process alone, which
/// needs the administrator; under Wine QORVA_TEST_SMALL_DRIVE names one that is there, such as
/// "T:".
class SmallVolume {
 public:
  SmallVolume();
  ~SmallVolume();
  SmallVolume(const SmallVolume&) = delete;
  SmallVolume& operator=(const SmallVolume&) = delete;

  /// A fresh folder on the volume; empty when there is none, and `why_not` says why.
  [[nodiscard]] const fs::Path& path() const { return path_; }
  [[nodiscard]] const std::string& why_not() const { return why_not_; }

 private:
  TempFolder folder_;
  fs::Path path_;
  std::string why_not_;
};

}  // namespace zul::test
