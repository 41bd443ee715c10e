#include "collector/process_life.h"

#include <windows.h>

#include "collector/collector_block_win32.h"
#include "core/handle_win32.h"

namespace zul {

ProcessFacts QueryProcess(std::uint32_t pid) {
  ProcessFacts facts;
  const UniqueKernelHandle process(
      ::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
  if (!process) {
    if (::GetLastError() == ERROR_ACCESS_DENIED) facts.opened = ProcessFacts::Opened::kDenied;
    return facts;
  }
  facts.opened = ProcessFacts::Opened::kYes;
  facts.running = ::WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
  facts.creation_time = CreationTimeOf(process.get());
  return facts;
}

}  // namespace zul
