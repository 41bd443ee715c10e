#pragma once

// What tests need from a file system and the file layer does not have: links, read-only and old
// files, a small volume.

#include <chrono>
#include <string>

#include "core/file_layer.h"
#include "tests/support/temp_folder.h"

namespace zul::test {

inline constexpr bool kOnWindows = fs::Path::preferred_separator == '\\';
/// The variable that the system's temporary folder comes from.
inline constexpr const char* kTempVariable = kOnWindows ? "TMP" : "TMPDIR";
/// The reason of a test that skips because MakeLink failed.
inline constexpr const char* kNoLinks = "this user may not make links";

/// True under Wine. Its links are those of the host: a link to a folder is a reparse point, a link
/// to a file looks like its target, a dangling link is invisible, and the removal of a link removes
/// its target.
[[nodiscard]] bool RunsUnderWine();

/// Creates a symbolic link at `link`. `target` is absolute, or relative to the link's folder, and
/// need not exist. Under Wine the host's `ln` creates it. False when this user may not make links.
[[nodiscard]] bool MakeLink(const fs::Path& target, const fs::Path& link);

/// Starts the removal of a tree by the host's tools under Wine, which cannot remove links itself.
/// Does not wait. On other systems does nothing.
void RemoveHostTree(const fs::Path& path);

/// Removes write permission from a file; on Windows that sets the read-only attribute.
inline void MakeReadOnly(const fs::Path& path) {
  using std::filesystem::perms;
  constexpr perms kWrite = perms::owner_write | perms::group_write | perms::others_write;
  std::filesystem::permissions(path, kWrite, std::filesystem::perm_options::remove);
}

/// Sets the last-write time of a file or folder to `age` ago.
void MakeOlder(const fs::Path& path, std::chrono::seconds age);

/// A volume of 1 to 4 MiB. Natively it is mounted for this process only, which needs root. On
/// Windows the environment variable QORVA_TEST_SMALL_DRIVE names an existing one, such as "T:".
class SmallVolume {
 public:
  SmallVolume();
  ~SmallVolume();
  SmallVolume(const SmallVolume&) = delete;
  SmallVolume& operator=(const SmallVolume&) = delete;

  /// A new folder on the volume. Empty when there is no volume, and `why_not` has the reason.
  [[nodiscard]] const fs::Path& path() const { return path_; }
  [[nodiscard]] const std::string& why_not() const { return why_not_; }

 private:
  TempFolder folder_;
  fs::Path path_;
  std::string why_not_;
};

}  // namespace zul::test
