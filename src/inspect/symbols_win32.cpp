#include "inspect/symbols.h"

#include <windows.h>

#include <array>

#include "core/handle_win32.h"
#include "core/text.h"
#include "request/update_request.h"

namespace zul {

namespace {

std::wstring CommandLineOf(const std::string& program, const std::vector<std::string>& arguments) {
  std::wstring line = QuoteCommandArgument(Utf8ToWide(program).value_or(std::wstring()));
  for (const std::string& argument : arguments) {
    line += L" " + QuoteCommandArgument(Utf8ToWide(argument).value_or(std::wstring()));
  }
  return line;
}

/// A pipe whose write end the child inherits.
bool CreateOutputPipe(UniqueKernelHandle* read_end, UniqueKernelHandle* write_end) {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  HANDLE read_handle = nullptr, write_handle = nullptr;
  if (::CreatePipe(&read_handle, &write_handle, &inheritable, 0) == 0) return false;
  *read_end = UniqueKernelHandle(read_handle);
  *write_end = UniqueKernelHandle(write_handle);
  return ::SetHandleInformation(read_handle, HANDLE_FLAG_INHERIT, 0) != 0;
}

}  // namespace

bool RunTool(const std::string& program, const std::vector<std::string>& arguments,
             std::string* output) {
  UniqueKernelHandle read_end, write_end;
  if (!CreateOutputPipe(&read_end, &write_end)) return false;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = write_end.get();
  std::wstring line = CommandLineOf(program, arguments);
  PROCESS_INFORMATION started{};
  if (::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                       nullptr, &startup, &started) == 0) {
    return false;
  }
  const UniqueKernelHandle process(started.hProcess), thread(started.hThread);
  write_end = UniqueKernelHandle();  // the read below ends when the child closes its end
  std::array<char, 4096> buffer{};
  DWORD read = 0;
  while (::ReadFile(read_end.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &read,
                    nullptr) != 0 &&
         read != 0) {
    output->append(buffer.data(), read);
  }
  DWORD exit_code = 1;
  ::WaitForSingleObject(process.get(), INFINITE);
  return ::GetExitCodeProcess(process.get(), &exit_code) != 0 && exit_code == 0;
}

}  // namespace zul
