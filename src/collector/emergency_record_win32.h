#pragma once

// Filling an emergency record in the crash path, for _win32.cpp files only. Nothing here takes
// memory or a lock, and the stack it needs is a few words: a thread whose stack ran out has little.

#include <windows.h>

#include "collector/emergency_record.h"

namespace zul {

/// The processor context in `record`. For a terminate the caller captures it there with
/// RtlCaptureContext, and has to do that itself: the stack is walked from the captured frame while
/// the caller waits, so the frame must still be there.
[[nodiscard]] CONTEXT* ContextIn(EmergencyRecord& record) noexcept;

/// Fills a record that has its magic and size. The thread is the calling one; code and context come
/// from `exception`, or, when that is null or lacks a context, stay as captured.
void FillEmergencyRecord(EmergencyRecord& record, EmergencyKind kind,
                         const EXCEPTION_POINTERS* exception) noexcept;

}  // namespace zul
