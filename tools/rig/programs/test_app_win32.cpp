// The stand-in for the application: test_app_v1.exe is version 1.0.0, test_app_v2.exe is 2.0.0. The
// rig copies them under the product's names.
//
//   test_app [--ignore-close] [--close-hang=MS] [--hold=PATH]
//   test_app --write-app-version-json PATH
//
// The first form shows a window of class ZUL_RIP_Main, titled "QORVA 2.0.0", with the version in
// large letters. WM_CLOSE ends it with exit code 0. With --ignore-close it ignores WM_CLOSE; with
// --close-hang it handles no message for MS milliseconds before it ends. --hold keeps a file open
// for reading. Other arguments are ignored. The second form writes the version as JSON into PATH
// and exits with 0, or with 1 when PATH cannot be written.
//
// Each event is appended as a UTF-8 line to app_mark.log beside the executable:
//   start 2.0.0 qorva_gui.exe "C:\x\qorva_gui.exe" --show-update-status    version, own file name,
//                                                                 command line
//   window QORVA 2.0.0         the window is on the screen
//   command 210                message 273 (WM_COMMAND) arrived with this id
//   close                      WM_CLOSE arrived
//   proof C:\x\proof.json      the version JSON is written
//   exit                       the window is closed

#include <windows.h>

#include <string>

#include "core/handle_win32.h"
#include "core/text.h"
#include "tools/rig/programs/program_support_win32.h"

namespace zul::rig {
namespace {

constexpr COLORREF kBackground = TEST_APP_MAJOR == 1 ? RGB(70, 78, 92) : RGB(18, 110, 76);

struct App {
  Arguments arguments;
  HBRUSH background = CreateSolidBrush(kBackground);
} app;

std::wstring OwnPath() {
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path;
}

bool Write(const std::wstring& path, DWORD access, DWORD disposition, std::string_view text) {
  const UniqueFileHandle file(CreateFileW(path.c_str(), access,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                          nullptr, disposition, 0, nullptr));
  DWORD written = 0;
  return file &&
         WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

/// Appends a line with one write, so that several processes can share the log.
void Mark(const std::string& line) {
  const std::wstring own = OwnPath();
  Write(own.substr(0, own.rfind(L'\\') + 1) + L"app_mark.log", FILE_APPEND_DATA, OPEN_ALWAYS,
        line + "\n");
}

int WriteVersionProof(const std::string& path) {
  const std::string json = "{\"version\":\"" TEST_APP_VERSION "\",\"build_id\":\"" TEST_APP_BUILD_ID
                           "\",\"channel\":\"stable\",\"platform\":\"windows\",\"arch\":\"x64\"}";
  if (!Write(Widen(path), GENERIC_WRITE, CREATE_ALWAYS, json)) return 1;
  Mark("proof " + path);
  return 0;
}

void AnswerClose(HWND window) {
  Mark("close");
  Sleep(OptionNumber(app.arguments, "--close-hang"));
  if (!OptionValue(app.arguments, "--ignore-close")) DestroyWindow(window);
}

LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
  switch (message) {
    case WM_CTLCOLORSTATIC:
      SetTextColor(reinterpret_cast<HDC>(wparam), RGB(255, 255, 255));
      SetBkColor(reinterpret_cast<HDC>(wparam), kBackground);
      return reinterpret_cast<LRESULT>(app.background);
    case WM_COMMAND:
      Mark("command " + std::to_string(LOWORD(wparam)));
      return 0;
    case WM_CLOSE:
      AnswerClose(window);
      return 0;
    case WM_DESTROY:
      PostQuitMessage(0);
      return 0;
    default:
      return DefWindowProcW(window, message, wparam, lparam);
  }
}

int ShowMainWindow() {
  constexpr wchar_t kClass[] = L"ZUL_RIP_Main";
  constexpr wchar_t kTitle[] = L"QORVA " TEXT(TEST_APP_VERSION);
  WNDCLASSW window_class{};
  window_class.lpfnWndProc = &WindowProcedure;
  window_class.hCursor = LoadCursorW(nullptr, IDC_ARROW);
  window_class.hbrBackground = app.background;
  window_class.lpszClassName = kClass;
  RegisterClassW(&window_class);
  const HWND window = CreateWindowExW(0, kClass, kTitle, WS_OVERLAPPEDWINDOW, 120, 90, 720, 360,
                                      nullptr, nullptr, nullptr, nullptr);
  const HWND text = CreateWindowExW(0, L"STATIC", L"Version " TEXT(TEST_APP_VERSION),
                                    WS_CHILD | WS_VISIBLE | SS_CENTER, 0, 110, 712, 80, window,
                                    nullptr, nullptr, nullptr);
  const HFONT font = CreateFontW(-64, 0, 0, 0, FW_SEMIBOLD, FALSE, FALSE, FALSE, DEFAULT_CHARSET,
                                 OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS, CLEARTYPE_QUALITY,
                                 DEFAULT_PITCH | FF_DONTCARE, L"Segoe UI");
  SendMessageW(text, WM_SETFONT, reinterpret_cast<WPARAM>(font), FALSE);
  ShowWindow(window, SW_SHOWNORMAL);
  UpdateWindow(window);
  Mark("window " + WideToUtf8Lossy(kTitle));
  MSG message{};
  while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
  Mark("exit");
  return 0;
}

int Run() {
  const std::wstring own = OwnPath();
  Mark("start " TEST_APP_VERSION " " + WideToUtf8Lossy(own.substr(own.rfind(L'\\') + 1)) + " " +
       WideToUtf8Lossy(GetCommandLineW()));
  app.arguments = CommandLineArguments();
  if (app.arguments.size() == 2 && app.arguments[0] == "--write-app-version-json") {
    return WriteVersionProof(app.arguments[1]);
  }
  const auto held = OptionValue(app.arguments, "--hold");
  const UniqueFileHandle holder(held ? CreateFileW(Widen(*held).c_str(), GENERIC_READ,
                                                   FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                                                   nullptr)
                                     : INVALID_HANDLE_VALUE);
  return ShowMainWindow();
}

}  // namespace
}  // namespace zul::rig

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
  return zul::rig::Run();
}
