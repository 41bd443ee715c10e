#include "collector/emergency_record_win32.h"

#include <cstring>

namespace zul {

static_assert(sizeof(CONTEXT) == sizeof(EmergencyRecord::context));
static_assert(offsetof(EmergencyRecord, context) % alignof(CONTEXT) == 0 &&
              alignof(EmergencyRecord) >= alignof(CONTEXT));

CONTEXT* ContextIn(EmergencyRecord& record) noexcept {
  return reinterpret_cast<CONTEXT*>(record.context.data());
}

void FillEmergencyRecord(EmergencyRecord& record, EmergencyKind kind,
                         const EXCEPTION_POINTERS* exception) noexcept {
  record.kind = static_cast<std::uint32_t>(kind);
  record.thread_id = ::GetCurrentThreadId();
  record.exception_code = 0;
  if (exception != nullptr && exception->ExceptionRecord != nullptr) {
    record.exception_code = exception->ExceptionRecord->ExceptionCode;
  }
  if (exception != nullptr && exception->ContextRecord != nullptr) {
    std::memcpy(record.context.data(), exception->ContextRecord, sizeof record.context);
  }
  std::memcpy(&record.instruction_pointer, record.context.data() + offsetof(CONTEXT, Rip),
              sizeof record.instruction_pointer);
}

}  // namespace zul
