#pragma once

// The collector's block as a view of shared memory, for _win32.cpp files only.

#include <windows.h>

#include "collector/collector_block.h"
#include "core/handle_win32.h"

namespace zul {

struct SharedBlockTraits {
  using Type = CollectorBlock*;
  static CollectorBlock* Invalid() { return nullptr; }
  static void Close(CollectorBlock* block) { ::UnmapViewOfFile(block); }
};
/// One process's view of the block, unmapped on destruction.
using UniqueSharedBlock = UniqueHandle<SharedBlockTraits>;

/// New shared memory for a block, backed by the page file, without a name. Null on failure.
[[nodiscard]] UniqueKernelHandle CreateBlockMapping();

/// The block in `mapping`, as its bytes are: nothing of it has been judged. Null when the mapping
/// is none, or smaller than a block.
[[nodiscard]] UniqueSharedBlock MapBlock(HANDLE mapping);

/// Between the block's text and a path, unit by unit. A directory of more than
/// kSessionDirectoryUnitsMax units is cut.
void SetSessionDirectory(CollectorBlock& block, const fs::Path& directory);
[[nodiscard]] fs::Path SessionDirectoryIn(const CollectorBlock& block);

}  // namespace zul
