// The real window on the real screen. Its size in pixels is checked at the dpi of the test display.

#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <bit>

#include "ui/message_pump.h"
#include "ui/progress_layout.h"
#include "ui/progress_window.h"

namespace zul {
namespace {

constexpr COLORREF kBackground = RGB(31, 35, 40);
constexpr COLORREF kBar = RGB(15, 18, 22);
constexpr COLORREF kBorder = RGB(64, 74, 88);
constexpr COLORREF kFill = RGB(91, 158, 245);

/// The progress window of this process; other tests may have theirs on the same display.
HWND FindOwnWindow() {
  HWND window = nullptr;
  while ((window = FindWindowExW(nullptr, window, L"ZULRipUpdaterProgressWindow", nullptr)) !=
         nullptr) {
    DWORD pid = 0;
    GetWindowThreadProcessId(window, &pid);
    if (pid == GetCurrentProcessId()) return window;
  }
  return nullptr;
}

std::wstring TextOf(HWND window) {
  std::array<wchar_t, 64> text{};
  GetWindowTextW(window, text.data(), static_cast<int>(text.size()));
  return text.data();
}

/// The client area as it stands on the screen.
class Picture {
 public:
  explicit Picture(HWND window) : window_(window), dc_(GetDC(window)) {}
  ~Picture() { ReleaseDC(window_, dc_); }
  Picture(const Picture&) = delete;
  Picture& operator=(const Picture&) = delete;
  [[nodiscard]] COLORREF at(int x, int y) const { return GetPixel(dc_, x, y); }

  /// Pixels of `colour` in one row.
  [[nodiscard]] int CountInRow(int y, COLORREF colour) const {
    int count = 0;
    for (int x = 0; x < kProgressClientWidth; ++x) count += at(x, y) == colour ? 1 : 0;
    return count;
  }
  /// Whether anything but the background stands in a rectangle.
  [[nodiscard]] bool HasInk(const PixelRect& area) const {
    for (int y = area.top; y < area.bottom; ++y) {
      for (int x = area.left; x < area.right; ++x) {
        if (at(x, y) != kBackground) return true;
      }
    }
    return false;
  }

 private:
  HWND window_;
  HDC dc_;
};

/// Pumps when the surface is sure to look again.
void PumpAll(UpdateProgressWindow& progress) {
  Sleep(20);
  progress.PumpMessages();
}

TEST(ScreenSurface, MakesTheWindowOnFirstUseAndTakesItAway) {
  UpdateProgressWindow progress(CreateScreenSurface());
  ASSERT_EQ(FindOwnWindow(), nullptr);
  PumpAll(progress);
  ASSERT_EQ(FindOwnWindow(), nullptr);
  for (int round = 0; round < 2; ++round) {
    progress.set_status("Preparing update...", "Creating temporary workspace.", 0);
    const HWND window = FindOwnWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(IsWindowVisible(window));
    EXPECT_EQ(TextOf(window), L"QORVA Updater");
    RECT client{}, outer{};
    GetClientRect(window, &client);
    GetWindowRect(window, &outer);
    EXPECT_EQ(client.right, kProgressClientWidth);
    EXPECT_EQ(client.bottom, kProgressClientHeight);
    EXPECT_NEAR(outer.left + outer.right, GetSystemMetrics(SM_CXSCREEN), 1);
    EXPECT_NEAR(outer.top + outer.bottom, GetSystemMetrics(SM_CYSCREEN), 1);
    const auto style = static_cast<DWORD>(GetWindowLongW(window, GWL_STYLE));
    EXPECT_EQ(style & (WS_THICKFRAME | WS_MAXIMIZEBOX), 0U);
    EXPECT_NE(GetWindowLongW(window, GWL_EXSTYLE) & WS_EX_TOPMOST, 0);
    progress.Destroy();
    EXPECT_EQ(FindOwnWindow(), nullptr);
  }
}

/// Refuses this thread the creation of windows of one class.
class CreationBlock {
 public:
  explicit CreationBlock(const wchar_t* window_class) {
    blocked_class = window_class;
    hook_ = SetWindowsHookExW(WH_CBT, &CreationBlock::OnEvent, nullptr, GetCurrentThreadId());
  }
  ~CreationBlock() { UnhookWindowsHookEx(hook_); }
  CreationBlock(const CreationBlock&) = delete;
  CreationBlock& operator=(const CreationBlock&) = delete;

 private:
  static LRESULT CALLBACK OnEvent(int code, WPARAM wparam, LPARAM lparam) {
    if (code != HCBT_CREATEWND) return CallNextHookEx(nullptr, code, wparam, lparam);
    std::array<wchar_t, 64> name{};
    GetClassNameW(std::bit_cast<HWND>(wparam), name.data(), static_cast<int>(name.size()));
    return lstrcmpiW(name.data(), blocked_class) == 0 ? 1 : 0;
  }
  static inline const wchar_t* blocked_class = nullptr;
  HHOOK hook_ = nullptr;
};

TEST(ScreenSurface, RunsOnWithoutAWindowThatCannotBeMade) {
  UpdateProgressWindow progress(CreateScreenSurface());
  for (const wchar_t* refused : {L"ZULRipUpdaterProgressWindow", L"BUTTON"}) {
    const CreationBlock block(refused);
    progress.set_status("Title", "Detail", 10);
    progress.set_download_progress("primary", 1, 2, 0);
    progress.set_force_close_available(true);
    EXPECT_EQ(FindOwnWindow(), nullptr) << "no half-made window stays";
  }
  progress.set_status("Title", "Detail", 20);
  ASSERT_NE(FindOwnWindow(), nullptr);
  EXPECT_TRUE(IsWindowVisible(GetDlgItem(FindOwnWindow(), 1001))) << "the state was kept";
}

TEST(ScreenSurface, ShowsThePercentAsTheWidthOfTheFill) {
  UpdateProgressWindow progress(CreateScreenSurface());
  constexpr int kRow = 150;  // inside the bar, above the percent text
  struct Case {
    int percent, filled;
  };
  for (const Case& c : {Case{-1, 0}, Case{0, 0}, Case{37, 201}, Case{100, 544}}) {
    progress.set_status("Title", "", c.percent);
    const Picture picture(FindOwnWindow());
    EXPECT_EQ(picture.CountInRow(kRow, kFill), c.filled) << c.percent;
    EXPECT_EQ(picture.CountInRow(kRow, kBackground), 56) << c.percent;
    EXPECT_EQ(picture.at(28 + c.filled + 2, kRow), c.filled == 544 ? kBackground : kBar);
    EXPECT_EQ(picture.at(571, kRow), c.filled == 544 ? kFill : kBorder);
  }
  const Picture picture(FindOwnWindow());
  EXPECT_TRUE(picture.HasInk({28, 26, 572, 54}));
  EXPECT_FALSE(picture.HasInk({0, 0, 600, 26}));
  EXPECT_FALSE(picture.HasInk({28, 66, 572, 118})) << "no detail was given";
  EXPECT_FALSE(picture.HasInk({28, 198, 572, 224})) << "no download, no figures";
}

TEST(ScreenSurface, ForceCloseButtonFollowsTheState) {
  UpdateProgressWindow progress(CreateScreenSurface());
  progress.set_download_progress("primary", 123456789, 987654321, 12345678);
  const HWND window = FindOwnWindow();
  const HWND button = GetDlgItem(window, 1001);
  ASSERT_NE(button, nullptr);
  EXPECT_FALSE(IsWindowVisible(button));
  progress.set_force_close_available(true);
  EXPECT_TRUE(IsWindowVisible(button) && IsWindowEnabled(button));
  RECT place{};
  GetWindowRect(button, &place);
  MapWindowPoints(nullptr, window, reinterpret_cast<POINT*>(&place), 2);
  const PixelRect shown{place.left, place.top, place.right, place.bottom};
  EXPECT_EQ(shown, LayOutForceButton(600, 96));

  PostMessageW(window, WM_COMMAND, MAKEWPARAM(1001, BN_SETFOCUS), 0);
  PumpAll(progress);
  EXPECT_FALSE(progress.force_close_requested()) << "only a click counts";
  PostMessageW(button, BM_CLICK, 0, 0);
  PumpAll(progress);
  EXPECT_TRUE(progress.force_close_requested());
  EXPECT_EQ(TextOf(button), L"Closing...");
  EXPECT_TRUE(IsWindowVisible(button) && !IsWindowEnabled(button));

  progress.set_force_close_available(false);
  EXPECT_FALSE(IsWindowVisible(button));
  PostMessageW(window, WM_COMMAND, MAKEWPARAM(1001, BN_CLICKED), 0);
  PumpAll(progress);
  EXPECT_FALSE(progress.force_close_requested()) << "it was not offered";
  progress.set_force_close_available(true);
  EXPECT_EQ(TextOf(button), L"Force close QORVA");
  PostMessageW(window, WM_COMMAND, MAKEWPARAM(1001, BN_CLICKED), 0);
  PumpAll(progress);
  EXPECT_TRUE(progress.force_close_requested());
}

TEST(ScreenSurface, CloseMinimisesAndTheRunGoesOn) {
  UpdateProgressWindow progress(CreateScreenSurface());
  progress.set_status("Title", "Detail", 10);
  const HWND window = FindOwnWindow();
  PostMessageW(window, WM_CLOSE, 0, 0);
  PumpAll(progress);
  EXPECT_TRUE(IsIconic(window));
  progress.set_status("Title", "Detail", 20);
  EXPECT_EQ(FindOwnWindow(), window);
  EXPECT_TRUE(IsIconic(window)) << "progress does not bring it back in the user's way";
}

TEST(ScreenSurface, NewDpiTakesTheSuggestedPlaceAndMovesTheButton) {
  UpdateProgressWindow progress(CreateScreenSurface());
  progress.set_status("Title", "Detail", 50);
  progress.set_force_close_available(true);
  const HWND window = FindOwnWindow();
  RECT suggested{10, 20, 10 + 1210, 20 + 520};
  SendMessageW(window, WM_DPICHANGED, MAKEWPARAM(192, 192), reinterpret_cast<LPARAM>(&suggested));
  PumpAll(progress);
  RECT outer{}, client{}, place{};
  GetWindowRect(window, &outer);
  EXPECT_TRUE(EqualRect(&outer, &suggested));
  GetClientRect(window, &client);
  const HWND button = GetDlgItem(window, 1001);
  GetWindowRect(button, &place);
  MapWindowPoints(nullptr, window, reinterpret_cast<POINT*>(&place), 2);
  const PixelRect shown{place.left, place.top, place.right, place.bottom};
  EXPECT_EQ(shown, LayOutForceButton(client.right, 192));
  EXPECT_EQ(Picture(window).at(56 + 4, 292 + 4), kFill);
  LOGFONTW font{};
  GetObjectW(std::bit_cast<HFONT>(SendMessageW(button, WM_GETFONT, 0, 0)), sizeof(font), &font);
  EXPECT_EQ(font.lfHeight, -ScaleForDpi(10, 192, 72));
}

TEST(ScreenSurface, LeavesNoGdiObjectsBehind) {
  const auto objects = [] { return GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS); };
  const auto use = [] {
    UpdateProgressWindow progress(CreateScreenSurface());
    for (int percent = 0; percent < 50; ++percent) progress.set_status("Title", "Detail", percent);
  };
  use();  // what the system keeps for itself after a first window
  const DWORD before = objects();
  for (int round = 0; round < 3; ++round) use();
  EXPECT_LE(objects(), before);
}

TEST(MessagePump, PutsQuitAsideUntilTheWindowIsGone) {
  MSG message{};
  {
    UpdateProgressWindow progress(CreateScreenSurface());
    PostQuitMessage(7);
    progress.set_status("Title", "Detail", 10);
    EXPECT_NE(FindOwnWindow(), nullptr);
    EXPECT_FALSE(PeekMessageW(&message, nullptr, WM_QUIT, WM_QUIT, PM_NOREMOVE));
    progress.Destroy();
  }
  ASSERT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
  EXPECT_EQ(message.message, static_cast<UINT>(WM_QUIT));
  EXPECT_EQ(message.wParam, 7U);
  PumpPendingMessages();
  RepostPendingQuit();
  EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) << "it is posted once";
}

}  // namespace
}  // namespace zul
