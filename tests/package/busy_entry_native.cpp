#include "tests/package/busy_entry.h"

#include <sched.h>
#include <sys/mount.h>

namespace zul::test {

struct BusyEntry::State {
  fs::Path path;
  bool mounted = false;
};

BusyEntry::BusyEntry(const fs::Path& path) : state_(std::make_unique<State>()) {
  state_->path = path;
  std::error_code code;
  // Seen by this process only, so that nothing stays mounted after it.
  state_->mounted = fs::CreateDirectories(path, code) && ::unshare(CLONE_NEWNS) == 0 &&
                    ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                    ::mount("tmpfs", path.c_str(), "tmpfs", 0, "size=64k") == 0;
}

BusyEntry::~BusyEntry() {
  LetGo();
}

bool BusyEntry::is_busy() const {
  return state_->mounted;
}

void BusyEntry::LetGo() {
  if (state_->mounted) ::umount(state_->path.c_str());
  state_->mounted = false;
}

}  // namespace zul::test
