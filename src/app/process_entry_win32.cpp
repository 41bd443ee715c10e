// The process entry. Its whole job is to split the command line and pick the mode; it holds no
// update logic.

#include <windows.h>

#include <shellapi.h>

#include <memory>

#include "core/system_library_win32.h"
#include "update/driver.h"

namespace zul {

namespace {

struct LocalMemoryRelease {
  void operator()(wchar_t** memory) const { ::LocalFree(memory); }
};
using ArgumentVector = std::unique_ptr<wchar_t*, LocalMemoryRelease>;

int ProcessEntry() {
  RestrictLibrarySearch();
  int argc = 0;
  const ArgumentVector argv(::CommandLineToArgvW(::GetCommandLineW(), &argc));
  // A command line that cannot be split is one without arguments.
  return RunUpdateDriver(argv ? argc : 0, argv.get());
}

}  // namespace

}  // namespace zul

// The name and signature that the platform calls.
int WINAPI wWinMain(HINSTANCE /*instance*/, HINSTANCE /*previous*/, LPWSTR /*command_line*/,
                    int /*show*/) {
  return zul::ProcessEntry();
}
