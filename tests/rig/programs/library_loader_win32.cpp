// A program that loads libraries by their names alone, as one does that leaves the search open.
//
//   library_loader NAME...
//
// Prints the path of each library that came (UTF-8), one a line. Exit code 0; 1 when one did not
// come; 64 usage.

#include <windows.h>

#include "core/text.h"
#include "tests/rig/programs/program_support_win32.h"

int wmain() {
  const auto names = zul::rig::CommandLineArguments();
  if (names.empty()) return zul::rig::Usage("usage: library_loader NAME...");
  int exit_code = 0;
  for (const std::string& name : names) {
    const HMODULE library = LoadLibraryW(zul::rig::Widen(name).c_str());
    if (library == nullptr) exit_code = 1;
    wchar_t path[1024] = L"";
    if (library != nullptr) GetModuleFileNameW(library, path, 1024);
    zul::rig::PrintLine(zul::WideToUtf8Lossy(path));
  }
  return exit_code;
}
