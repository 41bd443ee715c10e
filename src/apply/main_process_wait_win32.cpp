#include "apply/main_process_wait.h"

#include <windows.h>

#include "core/handle_win32.h"
#include "ui/message_pump.h"

namespace zul {

bool WaitForMainProcess(std::uint32_t pid, std::uint32_t timeout_ms, std::string* error,
                        bool pump_messages) {
  if (pid == 0) return true;
  const UniqueKernelHandle process(::OpenProcess(SYNCHRONIZE, FALSE, pid));
  if (!process) return true;
  const bool ended = pump_messages
                         ? PumpUntilSignalled(process.get(), timeout_ms)
                         : ::WaitForSingleObject(process.get(), timeout_ms) == WAIT_OBJECT_0;
  if (!ended && error != nullptr) *error = "Timed out waiting for main process to exit.";
  return ended;
}

}  // namespace zul
