#include "tests/support/file_tricks.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "core/system_error.h"

namespace zul::test {

bool RunsUnderWine() {
  return false;
}

bool MakeLink(const fs::Path& target, const fs::Path& link) {
  return ::symlink(target.c_str(), link.c_str()) == 0;
}

void RemoveHostTree(const fs::Path&) {}

void MakeOlder(const fs::Path& path, std::chrono::seconds age) {
  std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() - age);
}

SmallVolume::SmallVolume() {
  // In a mount namespace of this process, so that the system unmounts it when the process ends.
  if (::unshare(CLONE_NEWNS) == 0 &&
      ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
      ::mount("tmpfs", folder_.path().c_str(), "tmpfs", 0, "size=1m") == 0) {
    path_ = folder_.path();
  } else {
    why_not_ = "cannot mount a small volume: " + SystemErrorText(LastSystemError());
  }
}

SmallVolume::~SmallVolume() {
  if (!path_.empty()) ::umount(path_.c_str());
}

}  // namespace zul::test
