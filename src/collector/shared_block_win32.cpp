#include "collector/shared_block_win32.h"

#include <algorithm>
#include <string>

namespace zul {

static_assert(sizeof(wchar_t) == sizeof(char16_t));

UniqueKernelHandle CreateBlockMapping() {
  return UniqueKernelHandle(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                                 sizeof(CollectorBlock), nullptr));
}

UniqueSharedBlock MapBlock(HANDLE mapping) {
  return UniqueSharedBlock(static_cast<CollectorBlock*>(
      ::MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(CollectorBlock))));
}

void SetSessionDirectory(CollectorBlock& block, const fs::Path& directory) {
  const std::wstring& text = directory.native();
  const std::size_t units = std::min(text.size(), kSessionDirectoryUnitsMax);
  block.session_directory.fill(0);
  std::copy_n(text.begin(), units, block.session_directory.begin());
}

fs::Path SessionDirectoryIn(const CollectorBlock& block) {
  const auto& text = block.session_directory;
  // The last unit is not looked at, so that a text without an end has one.
  const auto end = std::find(text.begin(), text.end() - 1, u'\0');
  return fs::Path(std::wstring(text.begin(), end));
}

}  // namespace zul
