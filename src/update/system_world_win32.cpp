// The world of the real program: the platform's boxes, browser, clipboard, processes and windows.

#include <windows.h>

#include <shellapi.h>

#include <cstring>

#include "apply/self_replace.h"
#include "core/failure.h"
#include "core/handle_win32.h"
#include "core/process_environment.h"
#include "core/text.h"
#include "update/driver.h"
#include "update/update_run.h"

namespace zul {

namespace {

constexpr wchar_t kBoxTitle[] = L"QORVA Updater";
static_assert(static_cast<UINT>(BoxStyle::kError) == (MB_OK | MB_ICONERROR));
static_assert(static_cast<UINT>(BoxStyle::kWarning) == (MB_OK | MB_ICONWARNING));
static_assert(static_cast<UINT>(BoxStyle::kErrorChoice) == (MB_YESNOCANCEL | MB_ICONERROR));
static_assert(static_cast<UINT>(BoxStyle::kNoticeChoice) == (MB_YESNOCANCEL | MB_ICONINFORMATION));

// The class of the application's main window, and the command that opens its update screen.
constexpr wchar_t kApplicationWindowClass[] = L"ZUL_RIP_Main";
constexpr WPARAM kShowUpdateCommand = 210;

std::wstring Widen(std::string_view text) {
  return Utf8ToWide(text).value_or(std::wstring());
}

BoxAnswer ShowBox(const std::string& text, BoxStyle style) {
  switch (::MessageBoxW(nullptr, Widen(text).c_str(), kBoxTitle, static_cast<UINT>(style))) {
    case IDYES:
      return BoxAnswer::kYes;
    case IDNO:
      return BoxAnswer::kNo;
    default:
      return BoxAnswer::kOther;
  }
}

bool OpenUrlInBrowser(std::string_view url) {
  const std::wstring wide = Widen(url);
  if (wide.empty()) return false;
  const HINSTANCE result =
      ::ShellExecuteW(nullptr, L"open", wide.c_str(), nullptr, nullptr, SW_SHOWNORMAL);
  // The platform's documentation: a value above 32 means success.
  return reinterpret_cast<INT_PTR>(result) > 32;
}

/// A movable global block with the text and its terminator; null when there is no memory.
HGLOBAL MakeClipboardBlock(const std::wstring& text) {
  const std::size_t size = (text.size() + 1) * sizeof(wchar_t);
  HGLOBAL block = ::GlobalAlloc(GMEM_MOVEABLE, size);
  if (block == nullptr) return nullptr;
  void* memory = ::GlobalLock(block);
  if (memory == nullptr) {
    ::GlobalFree(block);
    return nullptr;
  }
  std::memcpy(memory, text.c_str(), size);
  ::GlobalUnlock(block);
  return block;
}

bool CopyTextToClipboard(std::string_view text) {
  const std::wstring wide = Widen(text);
  if (wide.empty()) return false;
  HGLOBAL block = MakeClipboardBlock(wide);
  if (block == nullptr) return false;
  if (!::OpenClipboard(nullptr)) {
    ::GlobalFree(block);
    return false;
  }
  ::EmptyClipboard();
  const bool set = ::SetClipboardData(CF_UNICODETEXT, block) != nullptr;
  ::CloseClipboard();
  // From a successful set on the clipboard owns the block.
  if (!set) ::GlobalFree(block);
  return set;
}

void Print(std::string_view text) {
  HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
  if (output == nullptr || output == INVALID_HANDLE_VALUE) return;
  DWORD written = 0;
  while (!text.empty() &&
         ::WriteFile(output, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
         written != 0) {
    text.remove_prefix(written);
  }
}

bool LaunchApplication(std::string_view exe, std::string_view arguments, std::string* error) {
  const std::wstring application = Widen(exe);
  if (application.empty()) return Fail(error, "Invalid executable path.");
  // CreateProcessW may write into the command line, so it gets a buffer of its own.
  std::wstring command_line = QuoteCommandArgument(application);
  if (!arguments.empty()) command_line += L' ' + Widen(arguments);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION created{};
  if (!::CreateProcessW(application.c_str(), command_line.data(), nullptr, nullptr, FALSE, 0,
                        nullptr, nullptr, &startup, &created)) {
    return Fail(error, "Cannot restart application after update.");
  }
  const UniqueKernelHandle process(created.hProcess);
  const UniqueKernelHandle thread(created.hThread);
  return true;
}

bool ShowRunningApplication() {
  HWND window = ::FindWindowW(kApplicationWindowClass, nullptr);
  if (window == nullptr) return false;
  ::ShowWindow(window, ::IsIconic(window) ? SW_RESTORE : SW_SHOW);
  ::SetForegroundWindow(window);
  return ::PostMessageW(window, WM_COMMAND, kShowUpdateCommand, 0) != FALSE;
}

UpdateWorld SystemWorld() {
  UpdateWorld world;
  world.own_executable = CurrentExecutablePath();
  world.classify_current_process = ClassifyCurrentProcess;
  world.relaunch_from_target_if_needed = RelaunchFromTargetIfNeeded;
  world.download_package = DownloadPackage;
  world.wait_for_main_process = WaitForMainProcess;
  world.apply_staged_update = ApplyStagedUpdate;
  world.replace_updater_deferred = [](const fs::Path& source, const fs::Path& target,
                                      std::string* error) {
    return ReplaceUpdaterDeferred(source, target, error);
  };
  world.launch_application = LaunchApplication;
  world.show_running_application = ShowRunningApplication;
  world.create_screen_surface = CreateScreenSurface;
  world.show_box = ShowBox;
  world.open_url_in_browser = OpenUrlInBrowser;
  world.copy_text_to_clipboard = CopyTextToClipboard;
  world.print = Print;
  world.report_updater_error = ReportUpdaterError;
  world.shutdown_diagnostics = ShutdownDiagnostics;
  return world;
}

}  // namespace

int RunUpdateDriver(int argc, const wchar_t* const* argv) {
  return RunUpdateDriver(SystemWorld(), argc, argv);
}

}  // namespace zul
