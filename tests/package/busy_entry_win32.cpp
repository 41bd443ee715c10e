#include "tests/package/busy_entry.h"

namespace zul::test {

struct BusyEntry::State {
  fs::File file;
};

BusyEntry::BusyEntry(const fs::Path& path) : state_(std::make_unique<State>()) {
  std::error_code code;
  if (!fs::CreateDirectories(path.parent_path(), code)) return;
  state_->file = fs::CreateNewFile(path, fs::NewFileAccess::kWrite, code);
}

BusyEntry::~BusyEntry() {
  LetGo();
}

bool BusyEntry::is_busy() const {
  return state_->file.is_open();
}

void BusyEntry::LetGo() {
  std::error_code code;
  (void)state_->file.Close(code);
}

}  // namespace zul::test
