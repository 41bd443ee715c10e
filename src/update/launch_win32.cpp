#include <windows.h>

#include "core/handle_win32.h"
#include "core/text.h"
#include "update/restart.h"

namespace zul {

bool LaunchApplication(std::string_view exe, std::string_view arguments, std::string* error) {
  const std::wstring application = Utf8ToWide(exe).value_or(std::wstring());
  if (application.empty()) {
    if (error != nullptr) *error = "Invalid executable path.";
    return false;
  }
  // CreateProcessW may write into the command line, hence a text of our own.
  std::wstring command_line = QuoteCommandArgument(application);
  if (!arguments.empty()) {
    command_line += L' ';
    command_line += Utf8ToWide(arguments).value_or(std::wstring());
  }
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION created{};
  if (!::CreateProcessW(application.c_str(), command_line.data(), nullptr, nullptr, FALSE, 0,
                        nullptr, nullptr, &startup, &created)) {
    if (error != nullptr) *error = "Cannot restart application after update.";
    return false;
  }
  const UniqueKernelHandle process(created.hProcess);
  const UniqueKernelHandle thread(created.hThread);
  return true;
}

}  // namespace zul
