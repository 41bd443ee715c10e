#pragma once

// Starting the observer's process, for _win32.cpp files only.

#include <windows.h>

#include <array>
#include <string>

#include "core/file_layer.h"
#include "core/handle_win32.h"

namespace zul {

/// What the observer inherits, in the order of its command line: the block's mapping, the crash
/// event, the ready event, and the observed process.
using ObserverHandles = std::array<HANDLE, 4>;

/// Starts `executable --observe` in `directory` without a window. It gets these four handles and no
/// other of this process; afterwards no child inherits them. Null on failure, and `reason` then
/// gets collector_handle_inheritance_failed, collector_attribute_init_failed,
/// collector_handle_allowlist_failed or collector_launch_failed.
[[nodiscard]] UniqueKernelHandle LaunchObserver(const fs::Path& executable,
                                                const fs::Path& directory,
                                                const ObserverHandles& handles,
                                                std::string* reason);

}  // namespace zul
