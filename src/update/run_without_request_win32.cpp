#include "update/run_without_request.h"

#include <windows.h>

#include <string>

#include "core/file_layer.h"
#include "core/process_environment.h"
#include "core/text.h"
#include "update/dialogs.h"
#include "update/install_classification.h"
#include "update/restart.h"
#include "update/update_run.h"

namespace zul {

namespace {

// What the application answers to: its main window's class and the command that opens its update
// screen.
constexpr wchar_t kApplicationWindowClass[] = L"ZUL_RIP_Main";
constexpr WPARAM kShowUpdateCommand = 210;

bool HandOverToRunningApplication() {
  HWND window = ::FindWindowW(kApplicationWindowClass, nullptr);
  if (window == nullptr) return false;
  ::ShowWindow(window, ::IsIconic(window) ? SW_RESTORE : SW_SHOW);
  ::SetForegroundWindow(window);
  return ::PostMessageW(window, WM_COMMAND, kShowUpdateCommand, 0) != FALSE;
}

/// The application beside the updater; empty when there is none.
fs::Path FindApplicationBeside(const fs::Path& updater) {
  for (const char* name : {"qorva_gui.exe", "zul_rip_gui.exe"}) {
    fs::Path candidate = updater.parent_path() / name;
    if (fs::IsRegularFile(candidate)) return candidate;
  }
  return {};
}

int Refuse(std::string_view message) {
  ShowUpdaterError(message);
  return kExitFailure;
}

}  // namespace

int RunWithoutRequest() {
  if (ClassifyCurrentProcess().is_archive) {
    ShowInstallerMigrationDialog({});
    return kExitArchiveMigrationRequired;
  }
  if (HandOverToRunningApplication()) return kExitDone;

  const fs::Path updater = CurrentExecutablePath(MAX_PATH);
  if (updater.empty()) {
    return Refuse(
        "QORVA Updater is launched automatically by QORVA.\n\n"
        "Please open QORVA and use Settings > Update.");
  }
  const fs::Path application = FindApplicationBeside(updater);
  if (application.empty()) {
    return Refuse(
        "QORVA Updater is launched automatically by QORVA.\n\n"
        "Cannot find qorva_gui.exe next to the updater. Please open QORVA and use Settings > "
        "Update.");
  }
  std::string error;
  if (!LaunchApplication(PathToUtf8(application), "--show-update-status", &error)) {
    return Refuse(error.empty() ? "Cannot open QORVA update window." : error);
  }
  return kExitDone;
}

}  // namespace zul
