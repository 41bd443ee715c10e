#include "tests/faults/other_process.h"

#include <windows.h>

#include <cstdlib>
#include <string>

#include "core/handle_win32.h"
#include "core/process_environment.h"
#include "core/system_error.h"
#include "core/text.h"

namespace zul::test {

void EndThisProcess() {
  for (;;) ::TerminateProcess(::GetCurrentProcess(), kDied);
}

const std::array<std::error_code, 4>& FaultErrors() {
  static const std::array<std::error_code, 4> errors = {
      SystemError(ERROR_ACCESS_DENIED), SystemError(ERROR_SHARING_VIOLATION),
      SystemError(ERROR_DISK_FULL), SystemError(ERROR_IO_DEVICE)};
  return errors;
}

int RunInOtherProcess(Scenario scenario, const FaultPlan& plan, const fs::Path& folder) {
  constexpr DWORD kTimeoutMs = 60000;
  std::wstring command = L"\"" + CurrentExecutablePath(260).native() + L"\" --update";
  for (const unsigned number :
       {static_cast<unsigned>(scenario), static_cast<unsigned>(plan.fault), plan.at}) {
    command += L" " + std::to_wstring(number);
  }
  command += L" \"" + folder.native() + L"\"";
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION info{};
  if (!::CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &info)) {
    return -1;
  }
  const UniqueKernelHandle process(info.hProcess);
  const UniqueKernelHandle thread(info.hThread);
  DWORD code = 0;
  if (::WaitForSingleObject(process.get(), kTimeoutMs) != WAIT_OBJECT_0 ||
      !::GetExitCodeProcess(process.get(), &code)) {
    ::TerminateProcess(process.get(), 1);
    return -1;
  }
  return static_cast<int>(code);
}

void RunIfThisIsTheOther(int argc, char** argv) {
  if (argc != 6 || std::string_view(argv[1]) != "--update") return;
  const auto number = [argv](int index) {
    return static_cast<unsigned>(std::strtoul(argv[index], nullptr, 10));
  };
  const fs::Path folder = PathFromUtf8(argv[5]).value();
  ArmFaults({static_cast<Fault>(number(3)), number(4)});
  ::ExitProcess(SampleUpdate::Run(static_cast<Scenario>(number(2)), folder) ? 0 : 1);
}

}  // namespace zul::test
