#pragma once

// The stack of a thread in a crashing or hanging process, as a list of modules and offsets. For
// _win32.cpp files only. No symbol names, no paths and no memory contents are recorded.
//
// Each failure sets fields of the record (capture_status, capture_error). The process handle needs
// PROCESS_QUERY_INFORMATION and PROCESS_VM_READ. Only one thread may call these functions at a
// time, since dbghelp.dll is single-threaded.

#include <windows.h>

#include <nlohmann/json_fwd.hpp>

namespace zul {

/// Sets `frames` from the thread's context; the first frame is its instruction pointer. A walk of
/// more than 48 frames or 1000 ms is cut and sets `frames_limited`.
void CaptureStack(HANDLE process, DWORD thread_id, const CONTEXT& context, nlohmann::json* record);

/// Copies the context of a running thread from a snapshot of its process, which does not suspend
/// the thread. On failure returns false and sets `capture_error`.
[[nodiscard]] bool CaptureThreadContextSnapshot(HANDLE process, DWORD thread_id, CONTEXT* context,
                                                nlohmann::json* record);

/// Sets working_set_bytes, private_bytes and handle_count. A value whose query fails is left out.
void CaptureProcessCounters(HANDLE process, nlohmann::json* record);

}  // namespace zul
