#pragma once

// The collector's block on Windows: its memory, and its fields as the system's types. For
// _win32.cpp files only.

#include <windows.h>

#include <cstdint>
#include <optional>

#include "collector/collector_block.h"
#include "core/handle_win32.h"
#include "core/path.h"

namespace zul {

/// For UniqueHandle.
struct SharedBlockTraits {
  using Type = CollectorBlock*;
  static CollectorBlock* Invalid() { return nullptr; }
  static void Close(CollectorBlock* block) { ::UnmapViewOfFile(block); }
};
/// One process's view of the block, unmapped on destruction.
using UniqueSharedBlock = UniqueHandle<SharedBlockTraits>;

/// Creates unnamed shared memory for one block, backed by the page file. Null on failure.
[[nodiscard]] UniqueKernelHandle CreateBlockMapping();

/// Maps the block in `mapping` without checking its contents. Null when `mapping` is not a file
/// mapping or is smaller than a block.
[[nodiscard]] UniqueSharedBlock MapBlock(HANDLE mapping);

/// Stores the path of the session folder, unit by unit. A path of more than
/// kSessionDirectoryUnitsMax units is cut.
void SetSessionDirectory(const fs::Path& directory, CollectorBlock* block);

/// The path that SetSessionDirectory stored.
[[nodiscard]] fs::Path SessionDirectoryIn(const CollectorBlock& block);

/// The creation time of a process, the value of CollectorBlock::process_identity: 100 ns units
/// since 1601, from GetProcessTimes. Nothing when the query fails.
[[nodiscard]] std::optional<std::uint64_t> CreationTimeOf(HANDLE process);

/// The processor context inside `record`.
[[nodiscard]] CONTEXT* ContextIn(EmergencyRecord& record) noexcept;

}  // namespace zul
