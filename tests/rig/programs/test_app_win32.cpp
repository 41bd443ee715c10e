// The stand-in for the application: test_app_v1.exe is version 1.0.0, test_app_v2.exe is 2.0.0. The
// rig copies them under the product's names.
//
//   test_app [--show-update-status] [--title=TEXT] [--exit-after=MS] [--ignore-close]
//            [--close-after=N] [--close-delay=MS] [--close-hang=MS] [--hold=PATH]
//   test_app --write-app-version-json PATH
//
// The first form shows a window of class ZUL_RIP_Main, titled "QORVA 2.0.0" unless told otherwise,
// with the version in large letters, until WM_CLOSE or --exit-after ends it with exit code 0.
// --close-after lets only the N-th WM_CLOSE end it, --ignore-close none; --close-delay lets MS pass
// between WM_CLOSE and the end while the window stays responsive, --close-hang while it answers
// nobody. --hold keeps a file open for reading all the while. The second form writes the version as
// JSON into PATH and exits with 0, or with 1 when PATH cannot be written. Wrong arguments: usage,
// exit code 64.
//
// Every start and what follows is told by UTF-8 lines appended to app_mark.log beside the
// executable:
//   start 2.0.0 qorva_gui.exe "C:\x\qorva_gui.exe" --show-update-status    version, own file name,
//                                                                 the command line as it was given
//   window QORVA 2.0.0         the window is on the screen
//   command 210                message 273 (WM_COMMAND) came with this id
//   close                      WM_CLOSE came
//   proof C:\x\proof.json      the version JSON was written
//   exit                       the window is gone

#include <windows.h>

#include <bit>
#include <cstdint>
#include <string>

#include "core/handle_win32.h"
#include "core/text.h"
#include "tests/rig/programs/program_support_win32.h"

namespace zul::rig {
namespace {

constexpr char kUsage[] =
    "usage: test_app [--show-update-status] [--title=TEXT] [--exit-after=MS] [--ignore-close]\n"
    "                [--close-after=N] [--close-delay=MS] [--close-hang=MS] [--hold=PATH]\n"
    "       test_app --write-app-version-json PATH";
constexpr UINT_PTR kExitTimer = 1;
constexpr UINT_PTR kCloseTimer = 2;
constexpr COLORREF kBackground = TEST_APP_MAJOR == 1 ? RGB(70, 78, 92) : RGB(18, 110, 76);

struct App {
  std::wstring title;
  std::wstring subtitle;
  bool ignore_close = false;
  UINT close_delay_ms = 0;
  DWORD close_hang_ms = 0;
  std::uint64_t closes_left = 1;
};

std::wstring OwnPath() {
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path;
}

bool WriteWhole(const std::wstring& path, DWORD access, DWORD disposition, std::string_view text) {
  const UniqueFileHandle file(CreateFileW(path.c_str(), access,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                          nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  return file &&
         WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
         written == text.size();
}

/// Appends one line in one write, so that several processes can share the log.
void Mark(std::string line) {
  for (char& c : line) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  const std::wstring own = OwnPath();
  WriteWhole(own.substr(0, own.rfind(L'\\') + 1) + L"app_mark.log", FILE_APPEND_DATA, OPEN_ALWAYS,
             line + "\n");
}

int WriteVersionProof(const std::string& path) {
  const std::string json = "{\"version\":\"" TEST_APP_VERSION "\",\"build_id\":\"" TEST_APP_BUILD_ID
                           "\",\"channel\":\"stable\",\"platform\":\"windows\",\"arch\":\"x64\"}";
  if (!WriteWhole(Widen(path), GENERIC_WRITE, CREATE_ALWAYS, json)) return 1;
  Mark("proof " + path);
  return 0;
}

void DrawLine(HDC dc, const std::wstring& text, int height, RECT area) {
  const HFONT font = CreateFontW(-height, 0, 0, 0, FW_SEMIBOLD, FALSE, FALSE, FALSE,
                                 DEFAULT_CHARSET, OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS,
                                 CLEARTYPE_QUALITY, DEFAULT_PITCH | FF_DONTCARE, L"Segoe UI");
  const HGDIOBJ previous = SelectObject(dc, font);
  DrawTextW(dc, text.c_str(), -1, &area,
            DT_CENTER | DT_VCENTER | DT_SINGLELINE | DT_NOPREFIX | DT_END_ELLIPSIS);
  SelectObject(dc, previous);
  DeleteObject(font);
}

void Paint(HWND window, const App& app) {
  PAINTSTRUCT paint{};
  const HDC dc = BeginPaint(window, &paint);
  RECT area{};
  GetClientRect(window, &area);
  SetDCBrushColor(dc, kBackground);
  FillRect(dc, &area, static_cast<HBRUSH>(GetStockObject(DC_BRUSH)));
  SetBkMode(dc, TRANSPARENT);
  SetTextColor(dc, RGB(255, 255, 255));
  DrawLine(dc, L"Version " TEXT(TEST_APP_VERSION), 64,
           {area.left, area.top, area.right, area.bottom - 60});
  DrawLine(dc, app.subtitle, 18, {area.left + 20, area.bottom - 90, area.right - 20, area.bottom});
  EndPaint(window, &paint);
}

void AnswerClose(HWND window, App& app) {
  Mark("close");
  Sleep(app.close_hang_ms);
  if (app.ignore_close || app.closes_left == 0 || --app.closes_left > 0) return;
  if (app.close_delay_ms == 0) {
    DestroyWindow(window);
  } else {
    SetTimer(window, kCloseTimer, app.close_delay_ms, nullptr);
  }
}

LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
  if (message == WM_NCCREATE) {
    const auto* create = std::bit_cast<const CREATESTRUCTW*>(lparam);
    SetWindowLongPtrW(window, GWLP_USERDATA, std::bit_cast<LONG_PTR>(create->lpCreateParams));
  }
  auto* app = std::bit_cast<App*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  switch (message) {
    case WM_PAINT:
      Paint(window, *app);
      return 0;
    case WM_COMMAND:
      Mark("command " + std::to_string(LOWORD(wparam)));
      return 0;
    case WM_CLOSE:
      AnswerClose(window, *app);
      return 0;
    case WM_TIMER:
      DestroyWindow(window);
      return 0;
    case WM_DESTROY:
      PostQuitMessage(0);
      return 0;
    default:
      return DefWindowProcW(window, message, wparam, lparam);
  }
}

int ShowMainWindow(App& app, UINT exit_after_ms) {
  WNDCLASSEXW window_class{};
  window_class.cbSize = sizeof(window_class);
  window_class.lpfnWndProc = &WindowProcedure;
  window_class.hInstance = GetModuleHandleW(nullptr);
  window_class.hCursor = LoadCursorW(nullptr, IDC_ARROW);
  window_class.lpszClassName = L"ZUL_RIP_Main";
  RegisterClassExW(&window_class);
  const HWND window =
      CreateWindowExW(0, L"ZUL_RIP_Main", app.title.c_str(), WS_OVERLAPPEDWINDOW, 120, 90, 720, 360,
                      nullptr, nullptr, window_class.hInstance, &app);
  if (window == nullptr) return 1;
  if (exit_after_ms > 0) SetTimer(window, kExitTimer, exit_after_ms, nullptr);
  ShowWindow(window, SW_SHOWNORMAL);
  UpdateWindow(window);
  Mark("window " + WideToUtf8Lossy(app.title));
  MSG message{};
  while (GetMessageW(&message, nullptr, 0, 0) > 0) {
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
  Mark("exit");
  return 0;
}

int Run() {
  const std::wstring own = OwnPath();
  const std::wstring file = own.substr(own.rfind(L'\\') + 1);
  Mark("start " TEST_APP_VERSION " " + WideToUtf8Lossy(file) + " " +
       WideToUtf8Lossy(GetCommandLineW()));
  Options options(CommandLineArguments());
  const auto proof = options.TakeValue("--write-app-version-json");
  const bool update_status = options.TakeFlag("--show-update-status");
  const std::string title = options.TakeValue("--title").value_or("QORVA " TEST_APP_VERSION);
  const auto exit_after_ms = static_cast<UINT>(options.TakeNumber("--exit-after").value_or(0));
  App app;
  app.title = Widen(title);
  app.subtitle = file + (update_status ? L"  -  update status" : L"");
  app.ignore_close = options.TakeFlag("--ignore-close");
  app.closes_left = options.TakeNumber("--close-after").value_or(1);
  app.close_delay_ms = static_cast<UINT>(options.TakeNumber("--close-delay").value_or(0));
  app.close_hang_ms = static_cast<DWORD>(options.TakeNumber("--close-hang").value_or(0));
  const auto held = options.TakeValue("--hold");
  if (!options.empty()) return Usage(kUsage);
  const UniqueFileHandle holder(held ? CreateFileW(Widen(*held).c_str(), GENERIC_READ,
                                                   FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                                   FILE_ATTRIBUTE_NORMAL, nullptr)
                                     : INVALID_HANDLE_VALUE);
  if (proof.has_value()) return WriteVersionProof(*proof);
  return ShowMainWindow(app, exit_after_ms);
}

}  // namespace
}  // namespace zul::rig

int WINAPI wWinMain(HINSTANCE, HINSTANCE, PWSTR, int) {
  return zul::rig::Run();
}
