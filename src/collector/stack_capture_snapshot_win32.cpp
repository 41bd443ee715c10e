// Process snapshots (processsnapshot.h of the platform). The toolchain does not declare the
// functions and older systems lack them, so they are looked up at run time.

#include <windows.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "collector/stack_capture_win32.h"
#include "core/system_library_win32.h"

namespace zul {

namespace {

using nlohmann::json;
using Snapshot = HANDLE;
using WalkMarker = HANDLE;

constexpr DWORD kCaptureThreads = 0x80;
constexpr DWORD kCaptureThreadContext = 0x100;
constexpr DWORD kContextFull = 0x10000B;  // control, integer and floating point, x86-64
static_assert(kContextFull == CONTEXT_FULL);
constexpr int kWalkThreads = 3;
constexpr int kThreadsMax = 2048;

/// PSS_THREAD_ENTRY.
struct ThreadEntry {
  DWORD exit_status;
  void* environment_block;
  DWORD process_id;
  DWORD thread_id;
  ULONG_PTR affinity_mask;
  int priority;
  int base_priority;
  void* last_system_call_argument;
  WORD last_system_call;
  FILETIME create_time;
  FILETIME exit_time;
  FILETIME kernel_time;
  FILETIME user_time;
  void* start_address;
  FILETIME capture_time;
  DWORD flags;
  WORD suspend_count;
  WORD context_size;
  const CONTEXT* context;  ///< in the snapshot; null when it was not captured
};
static_assert(sizeof(ThreadEntry) == 120 && offsetof(ThreadEntry, thread_id) == 20 &&
              offsetof(ThreadEntry, context_size) == 110 && offsetof(ThreadEntry, context) == 112);
static_assert(sizeof(CONTEXT) == 1232);

struct SnapshotFunctions {
  SystemFunction<DWORD WINAPI(HANDLE, DWORD, DWORD, Snapshot*)> capture{kLibrary,
                                                                        "PssCaptureSnapshot"};
  SystemFunction<DWORD WINAPI(const void*, WalkMarker*)> create_marker{kLibrary,
                                                                       "PssWalkMarkerCreate"};
  SystemFunction<DWORD WINAPI(Snapshot, int, WalkMarker, void*, DWORD)> walk{kLibrary,
                                                                             "PssWalkSnapshot"};
  SystemFunction<DWORD WINAPI(WalkMarker)> free_marker{kLibrary, "PssWalkMarkerFree"};
  SystemFunction<DWORD WINAPI(HANDLE, Snapshot)> free_snapshot{kLibrary, "PssFreeSnapshot"};

  [[nodiscard]] bool complete() const {
    return capture != nullptr && create_marker != nullptr && walk != nullptr &&
           free_marker != nullptr && free_snapshot != nullptr;
  }

 private:
  static constexpr const wchar_t* kLibrary = L"kernel32.dll";
};

bool FindContext(const SnapshotFunctions& functions, Snapshot snapshot, DWORD thread_id,
                 CONTEXT* context) {
  WalkMarker marker = nullptr;
  if (functions.create_marker(nullptr, &marker) != ERROR_SUCCESS) return false;
  bool found = false;
  ThreadEntry entry{};
  for (int i = 0; i < kThreadsMax && !found; ++i) {
    if (functions.walk(snapshot, kWalkThreads, marker, &entry, sizeof entry) != ERROR_SUCCESS) {
      break;
    }
    found = entry.thread_id == thread_id && entry.context != nullptr &&
            entry.context_size >= sizeof *context;
    if (found) std::memcpy(context, entry.context, sizeof *context);
  }
  functions.free_marker(marker);
  return found;
}

}  // namespace

bool CaptureThreadContextSnapshot(HANDLE process, DWORD thread_id, CONTEXT* context, json* record) {
  const SnapshotFunctions functions;
  Snapshot snapshot = nullptr;
  if (!functions.complete() || functions.capture(process, kCaptureThreads | kCaptureThreadContext,
                                                 kContextFull, &snapshot) != ERROR_SUCCESS) {
    (*record)["capture_error"] = "thread_snapshot_failed";
    return false;
  }
  const bool found = FindContext(functions, snapshot, thread_id, context);
  // The first argument is the process that holds the snapshot, not the captured one.
  functions.free_snapshot(::GetCurrentProcess(), snapshot);
  if (!found) (*record)["capture_error"] = "ui_thread_context_unavailable";
  return found;
}

}  // namespace zul
