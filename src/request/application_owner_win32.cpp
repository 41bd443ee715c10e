#include "request/application_owner.h"

#include <windows.h>

#include <vector>

#include "core/handle_win32.h"
#include "core/process_environment.h"

namespace zul {

std::optional<fs::Path> ProcessImagePath(std::uint32_t pid) {
  const UniqueKernelHandle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
  if (!process) return std::nullopt;
  std::vector<wchar_t> buffer(kLongestPathUnits);
  auto length = static_cast<DWORD>(buffer.size());
  if (::QueryFullProcessImageNameW(process.get(), 0, buffer.data(), &length) == 0) {
    return std::nullopt;
  }
  return fs::Path(std::wstring(buffer.data(), length));
}

}  // namespace zul
