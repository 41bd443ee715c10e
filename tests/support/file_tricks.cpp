#include "tests/support/file_tricks.h"

#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"

namespace zul::test {

SmallVolume::SmallVolume() {
  std::error_code ec;
  const std::string given = GetEnvironmentPath("QORVA_TEST_SMALL_DRIVE");
  const fs::Path place =
      given.empty() ? TempDirectory() / ("qorva-small-" + std::to_string(CurrentProcessId()))
                    : PathFromUtf8(given).value();
  if (given.empty()) {
    // What goes wrong here shows when it is mounted.
    static_cast<void>(fs::CreateDirectories(place, ec));
    why_not_ = MountSmallVolume(place);
    if (!why_not_.empty()) {
      fs::Remove(place, ec);
      return;
    }
    mount_point_ = place;
  }
  path_ = place / "work";
  fs::RemoveTree(path_, ec);
  if (!fs::CreateDirectories(path_, ec)) {
    why_not_ = "cannot use the small volume: " + SystemErrorText(ec);
    path_.clear();
  }
}

SmallVolume::~SmallVolume() {
  std::error_code ignored;
  if (!path_.empty()) fs::RemoveTree(path_, ignored);
  if (mount_point_.empty()) return;
  Unmount(mount_point_);
  fs::Remove(mount_point_, ignored);
}

}  // namespace zul::test
