#include <windows.h>

#include <array>
#include <bit>
#include <chrono>
#include <optional>
#include <string_view>
#include <utility>

#include "ui/caption_mouse_win32.h"
#include "ui/dpi_awareness.h"
#include "ui/message_pump.h"
#include "ui/progress_layout.h"
#include "ui/progress_painter_win32.h"
#include "ui/progress_window.h"
#include "ui/user32_function_win32.h"
#include "ui/window_messages_win32.h"
#include "ui/window_placement_win32.h"

namespace zul {

namespace {

constexpr wchar_t kClassName[] = L"ZULRipUpdaterProgressWindow";
constexpr wchar_t kWindowTitle[] = L"QORVA Updater";
// At most 255 characters (MAX_STR_BLOCKREASON).
constexpr wchar_t kSessionBlockReason[] =
    L"QORVA is being updated. Please wait until the update has finished.";
constexpr DWORD kStyle = WS_CAPTION | WS_SYSMENU | WS_MINIMIZEBOX;
constexpr DWORD kExtendedStyle = WS_EX_TOPMOST;
constexpr int kForceButtonId = 1001;
constexpr WORD kIconResource = 1;
constexpr int kSmallestDpi = 96;
constexpr int kLargestDpi = 960;  // twice the largest scaling of the system's settings
constexpr std::chrono::milliseconds kPumpInterval{10};

struct IconTraits {
  using Type = HICON;
  static HICON Invalid() { return nullptr; }
  static void Close(HICON icon) { ::DestroyIcon(icon); }
};
using UniqueIcon = UniqueHandle<IconTraits>;

int SystemDpi() {
  const auto get_dpi = FindUser32Function<UINT(WINAPI*)()>("GetDpiForSystem");
  if (get_dpi != nullptr) return static_cast<int>(get_dpi());
  const HDC screen = GetDC(nullptr);
  if (screen == nullptr) return 96;
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

/// The size of the whole window for one dpi; nothing when the system cannot compute it.
std::optional<SIZE> OuterSize(int dpi) {
  RECT outer{0, 0, ScaleForDpi(kProgressClientWidth, dpi), ScaleForDpi(kProgressClientHeight, dpi)};
  const auto adjust = FindUser32Function<BOOL(WINAPI*)(RECT*, DWORD, BOOL, DWORD, UINT)>(
      "AdjustWindowRectExForDpi");
  const BOOL adjusted = adjust != nullptr
                            ? adjust(&outer, kStyle, FALSE, kExtendedStyle, static_cast<UINT>(dpi))
                            : AdjustWindowRectEx(&outer, kStyle, FALSE, kExtendedStyle);
  if (!adjusted) return std::nullopt;
  return SIZE{outer.right - outer.left, outer.bottom - outer.top};
}

SIZE ClientSize(HWND window) {
  RECT client{};
  GetClientRect(window, &client);
  return SIZE{client.right, client.bottom};
}

/// The window on the screen. All handles belong to the thread that created it.
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
  void RefreshPlacement() override;
  void RefreshSessionBlock() override;
  void PumpMessages() override;
  void DestroyWindow() override {
    DestroyNativeWindow();
    PumpPendingMessages();
  }

 private:
  static bool RegisterWindowClass();
  static LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam);

  static LRESULT CALLBACK ButtonProcedure(HWND button, UINT message, WPARAM wparam, LPARAM lparam);

  bool CreateMainWindow();
  bool CreateForceButton();
  void SetIcons();
  void DestroyNativeWindow();
  [[nodiscard]] bool Refuses(UINT message, WPARAM wparam) const;
  LRESULT Handle(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
  LRESULT HandleForButton(HWND button, UINT message, WPARAM wparam, LPARAM lparam);
  void Paint(HWND window);
  void ChangeDpi(int dpi);
  void Resize(SIZE outer);
  void PlaceForceButton();
  void FocusForceButton();

  /// The surface of this thread that has or creates a window. Not in the window's user data, which
  /// other processes can change.
  static thread_local ScreenSurface* shown_;

  UpdateProgressWindow* state_ = nullptr;
  HWND window_ = nullptr;  ///< null while the window is created or destroyed
  HWND force_button_ = nullptr;
  WNDPROC button_procedure_ = nullptr;  ///< of the system
  CaptionMouse caption_mouse_;
  int dpi_ = 0;
  ProgressFonts fonts_;
  UniqueIcon large_icon_;
  UniqueIcon small_icon_;
  std::chrono::steady_clock::time_point next_pump_{};  // a pump before this time does nothing
};

thread_local ScreenSurface* ScreenSurface::shown_ = nullptr;

// --- Making the window -----------------------------------------------------------------------

void ScreenSurface::EnsureCreated(UpdateProgressWindow& state) {
  state_ = &state;
  if (window_ != nullptr) return;
  MakeProcessDpiAware();
  dpi_ = SystemDpi();
  if (!RegisterWindowClass() || !CreateMainWindow()) return;
  fonts_ = ProgressFonts(dpi_);
  if (!CreateForceButton()) {
    DestroyNativeWindow();
    return;
  }
  SetIcons();
  RefreshButton();
  RefreshSessionBlock();
  ShowWindow(window_, SW_SHOWNORMAL);
  RefreshPlacement();
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
  const std::optional<SIZE> size = OuterSize(dpi_);
  if (!size) return false;
  const int left = (GetSystemMetrics(SM_CXSCREEN) - size->cx) / 2;
  const int top = (GetSystemMetrics(SM_CYSCREEN) - size->cy) / 2;
  shown_ = this;
  window_ = CreateWindowExW(kExtendedStyle, kClassName, kWindowTitle, kStyle, left, top, size->cx,
                            size->cy, nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
  if (window_ == nullptr) shown_ = nullptr;
  return window_ != nullptr;
}

bool ScreenSurface::CreateForceButton() {
  force_button_ = CreateWindowExW(
      0, L"BUTTON", state_->force_button_text(), WS_CHILD | WS_TABSTOP, 0, 0, 0, 0, window_,
      std::bit_cast<HMENU>(INT_PTR{kForceButtonId}), GetModuleHandleW(nullptr), nullptr);
  if (force_button_ == nullptr) return false;
  button_procedure_ = std::bit_cast<WNDPROC>(SetWindowLongPtrW(
      force_button_, GWLP_WNDPROC, std::bit_cast<LONG_PTR>(&ScreenSurface::ButtonProcedure)));
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
  if (window_ == nullptr) return;
  ::DestroyWindow(std::exchange(window_, nullptr));
  force_button_ = nullptr;
  shown_ = nullptr;
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
  // A key meant for the application must not press the button: it never gets the focus by itself,
  // nor keeps it for the next time that it is shown.
  if (GetFocus() == force_button_ && !state_->force_enabled()) SetFocus(window_);
  EnableWindow(force_button_, state_->force_enabled());
  ShowWindow(force_button_, state_->force_visible() ? SW_SHOW : SW_HIDE);
}

void ScreenSurface::RefreshPlacement() {
  if (window_ != nullptr) PlaceWindow(window_, state_->gives_way_to());
}

void ScreenSurface::RefreshSessionBlock() {
  if (window_ == nullptr) return;
  if (state_->changes_in_progress()) {
    ShutdownBlockReasonCreate(window_, kSessionBlockReason);
  } else {
    ShutdownBlockReasonDestroy(window_);
  }
}

/// Sets the button's position, and its font for the current dpi.
void ScreenSurface::PlaceForceButton() {
  const PixelRect place = LayOutForceButton(ClientSize(window_).cx, dpi_);
  SendMessageW(force_button_, WM_SETFONT, std::bit_cast<WPARAM>(fonts_.body()), TRUE);
  MoveWindow(force_button_, place.left, place.top, place.width(), place.height(), TRUE);
}

void ScreenSurface::FocusForceButton() {
  if (!state_->force_enabled()) return;
  SendMessageW(window_, WM_CHANGEUISTATE, MAKEWPARAM(UIS_CLEAR, UISF_HIDEFOCUS), 0);
  SetFocus(force_button_);
}

/// The window keeps its centre, so that most of it stays on the screen that has this dpi. The
/// rectangle that the system suggests in the message is not used: any process can post a message.
void ScreenSurface::ChangeDpi(int dpi) {
  const std::optional<SIZE> outer = OuterSize(dpi);
  if (dpi < kSmallestDpi || dpi > kLargestDpi || !outer) return;
  caption_mouse_.ChangeDpi(std::exchange(dpi_, dpi), dpi);
  // The old fonts live until PlaceForceButton has given the button a new one.
  const ProgressFonts old_fonts = std::exchange(fonts_, ProgressFonts(dpi_));
  Resize(*outer);
  if (force_button_ != nullptr) PlaceForceButton();
  Repaint();
}

/// For a minimised window, changes the place that it has when it is restored.
void ScreenSurface::Resize(SIZE outer) {
  WINDOWPLACEMENT placement{};
  placement.length = sizeof placement;
  if (!GetWindowPlacement(window_, &placement)) return;
  RECT& place = placement.rcNormalPosition;
  const LONG left = (place.left + place.right - outer.cx) / 2;
  const LONG top = (place.top + place.bottom - outer.cy) / 2;
  place = {left, top, left + outer.cx, top + outer.cy};
  placement.showCmd = IsIconic(window_) ? SW_SHOWMINNOACTIVE : SW_SHOWNA;
  SetWindowPlacement(window_, &placement);
}

void ScreenSurface::Paint(HWND window) {
  PAINTSTRUCT paint{};
  const HDC dc = BeginPaint(window, &paint);
  if (dc == nullptr) {
    ValidateRect(window, nullptr);  // otherwise the system sends WM_PAINT again and again
    return;
  }
  const SIZE client = ClientSize(window);
  if (state_->force_visible()) {
    // The button paints itself; the background painted over it would make it flicker.
    const PixelRect button = LayOutForceButton(client.cx, dpi_);
    ExcludeClipRect(dc, button.left, button.top, button.right, button.bottom);
  }
  PaintProgress(dc, client, dpi_, *state_, fonts_);
  EndPaint(window, &paint);
}

// --- Messages --------------------------------------------------------------------------------

bool ScreenSurface::Refuses(UINT message, WPARAM wparam) const {
  return IsRefusedMessage(message, wparam) || (window_ != nullptr && IsLifeMessage(message));
}

LRESULT CALLBACK ScreenSurface::WindowProcedure(HWND window, UINT message, WPARAM wparam,
                                                LPARAM lparam) {
  return shown_ == nullptr ? DefWindowProcW(window, message, wparam, lparam)
                           : shown_->Handle(window, message, wparam, lparam);
}

LRESULT ScreenSurface::Handle(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
  if (caption_mouse_.Handle(window, message, wparam) || Refuses(message, wparam)) return 0;
  switch (message) {
    case WM_PAINT:
      Paint(window);
      return 0;
    case WM_ERASEBKGND:
      return 1;
    case WM_CLOSE:  // the user can hide the window but not end the update
      ShowWindow(window, SW_MINIMIZE);
      return 0;
    case WM_QUERYENDSESSION:
      return state_->changes_in_progress() ? FALSE : TRUE;
    case WM_COMMAND:
      if (LOWORD(wparam) == kForceButtonId && HIWORD(wparam) == BN_CLICKED) {
        state_->PressForceClose();
        return 0;
      }
      break;
    case WM_KEYDOWN:
      if (wparam == VK_TAB) FocusForceButton();
      return 0;
    case WM_CTLCOLORBTN: {  // the background at the button's round corners
      const auto dc = std::bit_cast<HDC>(wparam);
      SetDCBrushColor(dc, kProgressBackground);
      return std::bit_cast<LRESULT>(GetStockObject(DC_BRUSH));
    }
    case WM_DPICHANGED:
      if (window_ != nullptr) ChangeDpi(HIWORD(wparam));
      return 0;
    default:
      break;
  }
  return DefWindowProcW(window, message, wparam, lparam);
}

LRESULT CALLBACK ScreenSurface::ButtonProcedure(HWND button, UINT message, WPARAM wparam,
                                                LPARAM lparam) {
  return shown_ == nullptr ? DefWindowProcW(button, message, wparam, lparam)
                           : shown_->HandleForButton(button, message, wparam, lparam);
}

LRESULT ScreenSurface::HandleForButton(HWND button, UINT message, WPARAM wparam, LPARAM lparam) {
  constexpr LPARAM kIsRepeated = 1 << 30;
  // The last two would destroy, hide or move the button.
  if (Refuses(message, wparam) || message == WM_CLOSE || message == WM_SYSCOMMAND) return 0;
  if (message == WM_KEYDOWN && wparam == VK_TAB) {
    SetFocus(window_);
    return 0;
  }
  if (message == WM_KEYDOWN && wparam == VK_RETURN) {
    if ((lparam & kIsRepeated) == 0) state_->PressForceClose();
    return 0;
  }
  return CallWindowProcW(button_procedure_, button, message, wparam, lparam);
}

}  // namespace

std::unique_ptr<ProgressSurface> CreateScreenSurface() {
  return std::make_unique<ScreenSurface>();
}

}  // namespace zul
