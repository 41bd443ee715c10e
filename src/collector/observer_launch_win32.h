#pragma once

// The launch of the observer. For _win32.cpp files only.

#include <windows.h>

#include <array>
#include <string>

#include "core/handle_win32.h"
#include "core/path.h"

namespace zul {

/// The handles that the observer inherits, in the order of its command line: the block's mapping,
/// the crash event, the ready event, and the observed process.
using ObserverHandles = std::array<HANDLE, 4>;

/// Starts `executable --observe` without a window, with `directory` as its working directory. It
/// inherits these four handles and no other; afterwards no child inherits them. `observer` gets the
/// new process's handle. On failure `observer` stays unchanged, and `reason` gets
/// collector_handle_inheritance_failed, collector_attribute_init_failed,
/// collector_handle_allowlist_failed or collector_launch_failed.
[[nodiscard]] bool LaunchObserver(const fs::Path& executable, const fs::Path& directory,
                                  const ObserverHandles& handles, UniqueKernelHandle* observer,
                                  std::string* reason);

}  // namespace zul
