#include "collector/collector_block_win32.h"

#include <algorithm>
#include <string>

namespace zul {

static_assert(sizeof(wchar_t) == sizeof(char16_t));
static_assert(sizeof(CONTEXT) == sizeof(EmergencyRecord::context));
static_assert(offsetof(EmergencyRecord, context) % alignof(CONTEXT) == 0 &&
              alignof(EmergencyRecord) >= alignof(CONTEXT));

UniqueKernelHandle CreateBlockMapping() {
  return UniqueKernelHandle(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                                 sizeof(CollectorBlock), nullptr));
}

UniqueSharedBlock MapBlock(HANDLE mapping) {
  return UniqueSharedBlock(static_cast<CollectorBlock*>(
      ::MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(CollectorBlock))));
}

void SetSessionDirectory(const fs::Path& directory, CollectorBlock* block) {
  const std::wstring& text = directory.native();
  const std::size_t units = std::min(text.size(), kSessionDirectoryUnitsMax);
  block->session_directory.fill(0);
  std::copy_n(text.begin(), units, block->session_directory.begin());
}

fs::Path SessionDirectoryIn(const CollectorBlock& block) {
  const auto& text = block.session_directory;
  // The search leaves out the last unit, so that it ends even when the text has no terminator.
  const auto end = std::find(text.begin(), text.end() - 1, u'\0');
  return fs::Path(std::wstring(text.begin(), end));
}

std::optional<std::uint64_t> CreationTimeOf(HANDLE process) {
  FILETIME creation;
  FILETIME unused;
  if (!::GetProcessTimes(process, &creation, &unused, &unused, &unused)) return std::nullopt;
  return std::uint64_t{creation.dwHighDateTime} << 32 | std::uint64_t{creation.dwLowDateTime};
}

CONTEXT* ContextIn(EmergencyRecord& record) noexcept {
  return reinterpret_cast<CONTEXT*>(record.context.data());
}

}  // namespace zul
