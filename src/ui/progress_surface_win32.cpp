#include <windows.h>

#include <array>
#include <bit>
#include <chrono>
#include <string_view>
#include <utility>

#include "ui/message_pump.h"
#include "ui/progress_layout.h"
#include "ui/progress_painter_win32.h"
#include "ui/progress_window.h"

namespace zul {

namespace {

constexpr wchar_t kClassName[] = L"ZULRipUpdaterProgressWindow";
constexpr wchar_t kWindowTitle[] = L"QORVA Updater";
constexpr DWORD kStyle = WS_CAPTION | WS_SYSMENU | WS_MINIMIZEBOX;
constexpr DWORD kExtendedStyle = WS_EX_TOPMOST;
constexpr int kForceButtonId = 1001;
constexpr WORD kIconResource = 1;
constexpr std::chrono::milliseconds kPumpInterval{10};

struct IconTraits {
  using Type = HICON;
  static HICON Invalid() { return nullptr; }
  static void Close(HICON icon) { ::DestroyIcon(icon); }
};
using UniqueIcon = UniqueHandle<IconTraits>;

/// A function of user32.dll. Null on older systems that do not have it.
template <typename Function>
Function FindUser32Function(const char* name) {
  const HMODULE module = GetModuleHandleW(L"user32.dll");
  return module == nullptr ? nullptr : std::bit_cast<Function>(GetProcAddress(module, name));
}

void MakeProcessDpiAware() {
  // DPI_AWARENESS_CONTEXT_PER_MONITOR_AWARE_V2 of winuser.h.
  const auto per_monitor_v2 = std::bit_cast<HANDLE>(INT_PTR{-4});
  const auto set_context =
      FindUser32Function<BOOL(WINAPI*)(HANDLE)>("SetProcessDpiAwarenessContext");
  if (set_context == nullptr || !set_context(per_monitor_v2)) SetProcessDPIAware();
}

int SystemDpi() {
  const auto get_dpi = FindUser32Function<UINT(WINAPI*)()>("GetDpiForSystem");
  if (get_dpi != nullptr) return static_cast<int>(get_dpi());
  const HDC screen = GetDC(nullptr);
  if (screen == nullptr) return 0;  // counts as 96
  const int dpi = GetDeviceCaps(screen, LOGPIXELSX);
  ReleaseDC(nullptr, screen);
  return dpi;
}

/// The icon of the executable; null when it has none.
UniqueIcon LoadOwnIcon(int width_metric, int height_metric) {
  return UniqueIcon(static_cast<HICON>(LoadImageW(
      GetModuleHandleW(nullptr), MAKEINTRESOURCEW(kIconResource), IMAGE_ICON,
      GetSystemMetrics(width_metric), GetSystemMetrics(height_metric), LR_DEFAULTCOLOR)));
}

SIZE ClientSize(HWND window) {
  RECT client{};
  GetClientRect(window, &client);
  return SIZE{client.right, client.bottom};
}

/// The window on the screen. All handles belong to the thread that created it. The window's user
/// data points to this object from WM_NCCREATE on.
class ScreenSurface final : public ProgressSurface {
 public:
  ScreenSurface() = default;
  ~ScreenSurface() override {
    DestroyNativeWindow();
    RepostPendingQuit();
  }
  ScreenSurface(const ScreenSurface&) = delete;
  ScreenSurface& operator=(const ScreenSurface&) = delete;

  void EnsureCreated(UpdateProgressWindow& state) override;
  void Repaint() override;
  void RefreshButton() override;
  void PumpMessages() override;
  void DestroyWindow() override {
    DestroyNativeWindow();
    PumpPendingMessages();
  }

 private:
  static bool RegisterWindowClass();
  static LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam);

  bool CreateMainWindow();
  bool CreateForceButton();
  void SetIcons();
  void DestroyNativeWindow();
  LRESULT Handle(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
  void Paint();
  void ChangeDpi(int dpi, const RECT& suggested);
  void PlaceForceButton();

  UpdateProgressWindow* state_ = nullptr;
  HWND window_ = nullptr;
  HWND force_button_ = nullptr;
  int dpi_ = 0;
  ProgressFonts fonts_;
  UniqueIcon large_icon_;
  UniqueIcon small_icon_;
  std::chrono::steady_clock::time_point next_pump_{};  // a pump before this time does nothing
};

// --- Making the window -----------------------------------------------------------------------

void ScreenSurface::EnsureCreated(UpdateProgressWindow& state) {
  state_ = &state;
  if (window_ != nullptr) return;
  [[maybe_unused]] static const bool dpi_aware = (MakeProcessDpiAware(), true);
  dpi_ = SystemDpi();
  if (!RegisterWindowClass() || !CreateMainWindow()) return;
  fonts_ = ProgressFonts(dpi_);
  if (!CreateForceButton()) {
    DestroyNativeWindow();
    return;
  }
  SetIcons();
  RefreshButton();
  ShowWindow(window_, SW_SHOWNORMAL);
  Repaint();
}

bool ScreenSurface::RegisterWindowClass() {
  WNDCLASSEXW window_class{};
  window_class.cbSize = sizeof(window_class);
  window_class.lpfnWndProc = &ScreenSurface::WindowProcedure;
  window_class.hInstance = GetModuleHandleW(nullptr);
  window_class.hCursor = LoadCursorW(nullptr, IDC_ARROW);
  window_class.lpszClassName = kClassName;
  return RegisterClassExW(&window_class) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
}

bool ScreenSurface::CreateMainWindow() {
  RECT outer{0, 0, ScaleForDpi(kProgressClientWidth, dpi_),
             ScaleForDpi(kProgressClientHeight, dpi_)};
  if (!AdjustWindowRectEx(&outer, kStyle, FALSE, kExtendedStyle)) return false;
  const int width = outer.right - outer.left;
  const int height = outer.bottom - outer.top;
  const int left = (GetSystemMetrics(SM_CXSCREEN) - width) / 2;
  const int top = (GetSystemMetrics(SM_CYSCREEN) - height) / 2;
  window_ = CreateWindowExW(kExtendedStyle, kClassName, kWindowTitle, kStyle, left, top, width,
                            height, nullptr, nullptr, GetModuleHandleW(nullptr), this);
  return window_ != nullptr;
}

bool ScreenSurface::CreateForceButton() {
  force_button_ = CreateWindowExW(
      0, L"BUTTON", state_->force_button_text(), WS_CHILD | WS_TABSTOP, 0, 0, 0, 0, window_,
      std::bit_cast<HMENU>(INT_PTR{kForceButtonId}), GetModuleHandleW(nullptr), nullptr);
  if (force_button_ == nullptr) return false;
  PlaceForceButton();
  return true;
}

void ScreenSurface::SetIcons() {
  large_icon_ = LoadOwnIcon(SM_CXICON, SM_CYICON);
  small_icon_ = LoadOwnIcon(SM_CXSMICON, SM_CYSMICON);
  SendMessageW(window_, WM_SETICON, ICON_BIG, std::bit_cast<LPARAM>(large_icon_.get()));
  SendMessageW(window_, WM_SETICON, ICON_SMALL, std::bit_cast<LPARAM>(small_icon_.get()));
}

void ScreenSurface::DestroyNativeWindow() {
  if (window_ != nullptr) ::DestroyWindow(window_);
}

// --- Showing the state -------------------------------------------------------

void ScreenSurface::Repaint() {
  if (window_ == nullptr) return;
  InvalidateRect(window_, nullptr, FALSE);
  UpdateWindow(window_);
  next_pump_ = {};
}

/// Skips calls that follow the last pump within 10 ms. A download pumps after each chunk and the
/// apply for each file, and a look into an empty queue may take as long as a chunk (under Wine it
/// yields the processor). A user does not notice a delay of 10 ms.
void ScreenSurface::PumpMessages() {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_pump_) return;
  next_pump_ = now + kPumpInterval;
  PumpPendingMessages();
}

void ScreenSurface::RefreshButton() {
  if (force_button_ == nullptr) return;
  next_pump_ = {};
  const std::wstring_view text = state_->force_button_text();
  std::array<wchar_t, 32> shown{};
  const int length = GetWindowTextW(force_button_, shown.data(), static_cast<int>(shown.size()));
  if (text != std::wstring_view(shown.data(), static_cast<std::size_t>(length))) {
    SetWindowTextW(force_button_, state_->force_button_text());  // repaints the button
  }
  EnableWindow(force_button_, state_->force_enabled());
  ShowWindow(force_button_, state_->force_visible() ? SW_SHOW : SW_HIDE);
}

/// Sets the button's position, and its font for the current dpi.
void ScreenSurface::PlaceForceButton() {
  const PixelRect place = LayOutForceButton(ClientSize(window_).cx, dpi_);
  SendMessageW(force_button_, WM_SETFONT, std::bit_cast<WPARAM>(fonts_.body()), TRUE);
  MoveWindow(force_button_, place.left, place.top, place.width(), place.height(), TRUE);
}

void ScreenSurface::ChangeDpi(int dpi, const RECT& suggested) {
  dpi_ = dpi;
  // The old fonts live until PlaceForceButton has given the button a new one.
  const ProgressFonts old_fonts = std::exchange(fonts_, ProgressFonts(dpi_));
  SetWindowPos(window_, nullptr, suggested.left, suggested.top, suggested.right - suggested.left,
               suggested.bottom - suggested.top, SWP_NOZORDER | SWP_NOACTIVATE);
  if (force_button_ != nullptr) PlaceForceButton();
  Repaint();
}

void ScreenSurface::Paint() {
  PAINTSTRUCT paint{};
  const HDC dc = BeginPaint(window_, &paint);
  if (dc == nullptr) {
    ValidateRect(window_, nullptr);  // otherwise the system sends WM_PAINT again and again
    return;
  }
  const SIZE client = ClientSize(window_);
  if (state_->force_visible()) {
    // The button paints itself; the background painted over it would make it flicker.
    const PixelRect button = LayOutForceButton(client.cx, dpi_);
    ExcludeClipRect(dc, button.left, button.top, button.right, button.bottom);
  }
  PaintProgress(dc, client, dpi_, *state_, fonts_);
  EndPaint(window_, &paint);
}

// --- Messages --------------------------------------------------------------------------------

LRESULT CALLBACK ScreenSurface::WindowProcedure(HWND window, UINT message, WPARAM wparam,
                                                LPARAM lparam) {
  if (message == WM_NCCREATE) {
    const auto* create = std::bit_cast<const CREATESTRUCTW*>(lparam);
    SetWindowLongPtrW(window, GWLP_USERDATA, std::bit_cast<LONG_PTR>(create->lpCreateParams));
    static_cast<ScreenSurface*>(create->lpCreateParams)->window_ = window;
  }
  auto* const surface = std::bit_cast<ScreenSurface*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  return surface == nullptr ? DefWindowProcW(window, message, wparam, lparam)
                            : surface->Handle(window, message, wparam, lparam);
}

LRESULT ScreenSurface::Handle(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
  switch (message) {
    case WM_PAINT:
      Paint();
      return 0;
    case WM_ERASEBKGND:
      return 1;
    case WM_CLOSE:  // the user can hide the window but not end the update
      ShowWindow(window, SW_MINIMIZE);
      return 0;
    case WM_COMMAND:
      if (LOWORD(wparam) == kForceButtonId && HIWORD(wparam) == BN_CLICKED) {
        state_->PressForceClose();
        return 0;
      }
      break;
    case WM_CTLCOLORBTN: {  // the background at the button's round corners
      const auto dc = std::bit_cast<HDC>(wparam);
      SetDCBrushColor(dc, kProgressBackground);
      return std::bit_cast<LRESULT>(GetStockObject(DC_BRUSH));
    }
    case WM_DPICHANGED:
      ChangeDpi(HIWORD(wparam), *std::bit_cast<const RECT*>(lparam));
      return 0;
    case WM_DESTROY:
      window_ = nullptr;
      force_button_ = nullptr;
      return 0;
    default:
      break;
  }
  return DefWindowProcW(window, message, wparam, lparam);
}

}  // namespace

std::unique_ptr<ProgressSurface> CreateScreenSurface() {
  return std::make_unique<ScreenSurface>();
}

}  // namespace zul
