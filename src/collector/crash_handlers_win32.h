#pragma once

// The crash path of an observed process. For _win32.cpp files only. The first unhandled exception
// or std::terminate is written to emergency.bin and reported to the observer; then the crash takes
// its course. The crash path allocates nothing and takes no lock.

#include <windows.h>

#include <atomic>

#include "collector/collector_block.h"
#include "core/file_layer.h"

namespace zul {

/// What the crash path works with. Only `observer` changes after InstallCrashHandlers; the rest
/// stays valid until the process ends, so that a crash at any time can use it.
struct CrashChannel {
  CollectorBlock* block = nullptr;
  HANDLE crash_event = nullptr;  ///< wakes the observer
  HANDLE ready_event = nullptr;  ///< set by the observer as its answer
  fs::File emergency_file;
  std::atomic<HANDLE> observer{nullptr};  ///< the observer's process; null without one
};

/// Installs the handlers for unhandled exceptions and std::terminate. They call the previous
/// handlers after their own work. Also reserves 32 KiB of the calling thread's stack for the
/// handling of a stack overflow. To be called once per process; `channel` must live until the
/// process ends.
void InstallCrashHandlers(CrashChannel* channel) noexcept;

}  // namespace zul
