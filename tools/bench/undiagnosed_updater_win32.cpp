// The updater without diagnostics, to measure their cost. It is never shipped.

#include <windows.h>

#include <shellapi.h>

#include "core/system_library_win32.h"
#include "update/driver.h"

int WINAPI wWinMain(HINSTANCE /*instance*/, HINSTANCE /*previous*/, LPWSTR /*command_line*/,
                    int /*show*/) {
  zul::RestrictLibrarySearch();
  int argc = 0;
  wchar_t** const argv = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
  return zul::RunUpdateDriver(argc, argv);
}
