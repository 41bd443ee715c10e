#include "tests/faults/other_process.h"

#include <windows.h>

#include <process.h>

#include <string>

#include "core/process_environment.h"
#include "core/text.h"

namespace zul::test {

void EndThisProcess() {
  for (;;) ::TerminateProcess(::GetCurrentProcess(), kDied);
}

int RunInOtherProcess(Scenario scenario, const FaultPlan& plan, const fs::Path& folder) {
  const std::wstring program = CurrentExecutablePath(260).native();
  const std::wstring numbers = std::to_wstring(static_cast<unsigned>(scenario)) + L" " +
                               std::to_wstring(static_cast<unsigned>(plan.fault)) + L" " +
                               std::to_wstring(plan.at);
  const std::wstring quoted = L"\"" + folder.native() + L"\"";
  return static_cast<int>(::_wspawnl(_P_WAIT, program.c_str(), L"other", L"--update",
                                     numbers.c_str(), quoted.c_str(), nullptr));
}

void RunIfThisIsTheOther(int argc, char** argv) {
  if (argc != 6 || std::string_view(argv[1]) != "--update") return;
  ArmFaults({static_cast<Fault>(std::stoi(argv[3])), static_cast<unsigned>(std::stoi(argv[4]))});
  const auto scenario = static_cast<Scenario>(std::stoi(argv[2]));
  ::ExitProcess(SampleUpdate::Run(scenario, *PathFromUtf8(argv[5])) ? 0 : 1);
}

}  // namespace zul::test
