#pragma once

// What a process does about its own death, for _win32.cpp files only: an unhandled exception and
// std::terminate are written to emergency.bin and told to the observer, once, and then take their
// course. From the first crash on nothing here takes memory or a lock.

#include <windows.h>

#include <atomic>

#include "collector/collector_block.h"
#include "core/file_layer.h"

namespace zul {

/// What the handlers work with. All of it stays as it is until the process ends, so that a crash at
/// any time finds it; only the observer may go.
struct CrashChannel {
  CollectorBlock* block = nullptr;
  HANDLE crash_event = nullptr;  ///< wakes the observer
  HANDLE ready_event = nullptr;  ///< the observer's answer
  fs::File emergency_file;
  std::atomic<HANDLE> observer{nullptr};  ///< its process; null without one
};

/// Puts the handlers in front of those that are there, which are called afterwards, and gives the
/// calling thread 32 KiB of stack for the case that it runs out. Once in a process; `channel` must
/// live as long as the process.
void InstallCrashHandlers(CrashChannel* channel) noexcept;

}  // namespace zul
