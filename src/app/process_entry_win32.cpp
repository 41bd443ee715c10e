// The process entry: splits the command line, selects the mode, and starts diagnostics for the mode
// that needs them. It holds no update logic.

#include <windows.h>

#include <shellapi.h>

#include <cstdint>
#include <cwchar>

#include "collector/collector.h"
#include "collector/observer.h"
#include "core/handle_win32.h"
#include "core/system_library_win32.h"
#include "diagnostics/diagnostics.h"
#include "ui/dpi_awareness.h"
#include "update/driver.h"

namespace zul {

namespace {

/// Only the first argument selects a mode. In any other position `--observe` is an unknown switch
/// and is ignored.
bool IsObserver(int argc, const wchar_t* const* argv) {
  return argc > 1 && argv[1] != nullptr && std::wcscmp(argv[1], L"--observe") == 0;
}

void StartDiagnostics() {
  DiagnosticsConfig config;
  config.display_name = "QORVA Updater";
  config.log_base_name = "qorva_updater";
  InitDiagnostics(config);
}

int ProcessEntry() {
  RestrictLibrarySearch();
  int argc = 0;
  const UniqueLocalMemory<wchar_t**> argv(::CommandLineToArgvW(::GetCommandLineW(), &argc));
  if (!argv) argc = 0;  // a command line that cannot be split counts as one without arguments
  if (IsObserver(argc, argv.get())) return RunObserver(argc, argv.get());
  if (!AsksForVersion(argc, argv.get())) {
    MakeProcessDpiAware();
    StartDiagnostics();
  }
  const int exit_code = RunUpdateDriver(argc, argv.get());
  RecordProcessExitCode(static_cast<std::uint32_t>(exit_code));
  EndUnobservedSession();
  return exit_code;
}

}  // namespace

}  // namespace zul

// The name and signature that the platform calls.
int WINAPI wWinMain(HINSTANCE /*instance*/, HINSTANCE /*previous*/, LPWSTR /*command_line*/,
                    int /*show*/) {
  return zul::ProcessEntry();
}
