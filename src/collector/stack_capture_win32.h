#pragma once

// A thread of a dying or stuck process as a list of modules and offsets, for _win32.cpp files only.
// Nothing else of the process is recorded: no symbol names, no paths, no memory.
//
// All failures end in fields of the record (capture_status, capture_error). The process handle
// needs PROCESS_QUERY_INFORMATION and PROCESS_VM_READ. Only one thread of this process may be in
// here at a time (dbghelp.dll is not made for more).

#include <windows.h>

#include <nlohmann/json_fwd.hpp>

namespace zul {

/// Fills `frames` from the thread's context, the first frame being its instruction pointer. At most
/// 48 frames and 1000 ms; more sets `frames_limited`.
void CaptureStack(HANDLE process, DWORD thread_id, const CONTEXT& context, nlohmann::json* record);

/// The context of a living thread, from a snapshot of the process that does not disturb it. False
/// with `capture_error` set where it cannot be had.
[[nodiscard]] bool CaptureThreadContextSnapshot(HANDLE process, DWORD thread_id, CONTEXT* context,
                                                nlohmann::json* record);

/// Sets working_set_bytes, private_bytes and handle_count, each where the system tells it.
void CaptureProcessCounters(HANDLE process, nlohmann::json* record);

}  // namespace zul
