#include "tests/support/file_tricks.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "core/process_environment.h"
#include "core/system_error.h"

namespace zul::test {

namespace {

/// Mounts a small volume at `where`, seen by this process only, so that none is left behind.
bool MountForThisProcess(const fs::Path& where) {
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("tmpfs", where.c_str(), "tmpfs", 0, "size=1m") == 0;
}

}  // namespace

bool RunsUnderWine() {
  return false;
}

bool MakeLink(const fs::Path& target, const fs::Path& link) {
  return ::symlink(target.c_str(), link.c_str()) == 0;
}

void RemoveHostTree(const fs::Path&) {}

void MakeReadOnly(const fs::Path& path) {
  (void)::chmod(path.c_str(), 0444);
}

bool IsReadOnly(const fs::Path& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && (status.st_mode & 0222) == 0;
}

void MakeOlder(const fs::Path& path, std::chrono::seconds age) {
  std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() - age);
}

std::string NullDevice() {
  return "/dev/null";
}

SmallVolume::SmallVolume() {
  std::error_code ec;
  fs::Path place = GetEnvironmentPath("QORVA_TEST_SMALL_DRIVE");
  if (place.empty()) {
    place = TempDirectory() / ("qorva-small-" + std::to_string(CurrentProcessId()));
    if (!fs::CreateDirectories(place, ec) || !MountForThisProcess(place)) {
      why_not_ = "cannot mount a small volume: " + SystemErrorText(LastSystemError());
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
  (void)::umount(mount_point_.c_str());
  fs::Remove(mount_point_, ignored);
}

}  // namespace zul::test
