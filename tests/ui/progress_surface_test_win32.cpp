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

/// Where the button stands in the client area of its window.
PixelRect PlaceOf(HWND button) {
  RECT place{};
  GetWindowRect(button, &place);
  MapWindowPoints(nullptr, GetParent(button), reinterpret_cast<POINT*>(&place), 2);
  return {place.left, place.top, place.right, place.bottom};
}

/// The client area as it stands on the screen.
class Picture {
 public:
  explicit Picture(HWND window) : window_(window), dc_(GetDC(window)) {}
  ~Picture() { ReleaseDC(window_, dc_); }
  Picture(const Picture&) = delete;
  Picture& operator=(const Picture&) = delete;
  [[nodiscard]] COLORREF at(int x, int y) const { return GetPixel(dc_, x, y); }

  /// Pixels in a rectangle that are of `colour`.
  [[nodiscard]] int Count(const PixelRect& area, COLORREF colour) const {
    int count = 0;
    for (int y = area.top; y < area.bottom; ++y) {
      for (int x = area.left; x < area.right; ++x) count += at(x, y) == colour ? 1 : 0;
    }
    return count;
  }
  /// Whether anything but the background stands in a rectangle.
  [[nodiscard]] bool HasInk(const PixelRect& area) const {
    return Count(area, kBackground) < area.width() * (area.bottom - area.top);
  }

 private:
  HWND window_;
  HDC dc_;
};

class ScreenSurface : public testing::Test {
 protected:
  /// Pumps when the surface is sure to look again.
  void Pump() {
    Sleep(20);
    progress.PumpMessages();
  }
  void PostAndPump(HWND window, UINT message, WPARAM wparam = 0) {
    PostMessageW(window, message, wparam, 0);
    Pump();
  }

  UpdateProgressWindow progress{CreateScreenSurface()};
};

TEST_F(ScreenSurface, MakesTheWindowOnFirstUseAndTakesItAway) {
  ASSERT_EQ(FindOwnWindow(), nullptr);
  Pump();
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

const wchar_t* refused_class = nullptr;

/// Refuses this thread the creation of windows of `refused_class`.
LRESULT CALLBACK RefuseCreation(int code, WPARAM wparam, LPARAM lparam) {
  if (code != HCBT_CREATEWND) return CallNextHookEx(nullptr, code, wparam, lparam);
  std::array<wchar_t, 64> name{};
  GetClassNameW(std::bit_cast<HWND>(wparam), name.data(), static_cast<int>(name.size()));
  return lstrcmpiW(name.data(), refused_class) == 0 ? 1 : 0;
}

TEST_F(ScreenSurface, RunsOnWithoutAWindowThatCannotBeMade) {
  for (const wchar_t* refused : {L"ZULRipUpdaterProgressWindow", L"BUTTON"}) {
    refused_class = refused;
    const HHOOK hook = SetWindowsHookExW(WH_CBT, &RefuseCreation, nullptr, GetCurrentThreadId());
    progress.set_status("Title", "Detail", 10);
    progress.set_download_progress("primary", 1, 2, 0);
    progress.set_force_close_available(true);
    EXPECT_EQ(FindOwnWindow(), nullptr) << "no half-made window stays";
    UnhookWindowsHookEx(hook);
  }
  progress.set_status("Title", "Detail", 20);
  ASSERT_NE(FindOwnWindow(), nullptr);
  EXPECT_TRUE(IsWindowVisible(GetDlgItem(FindOwnWindow(), 1001))) << "the state was kept";
}

TEST_F(ScreenSurface, ShowsThePercentAsTheWidthOfTheFill) {
  constexpr PixelRect kRow{0, 150, kProgressClientWidth, 151};  // in the bar, above its text
  for (const auto& [percent, filled] : {std::pair{-1, 0}, {0, 0}, {37, 201}, {100, 544}}) {
    progress.set_status("Title", "", percent);
    const Picture picture(FindOwnWindow());
    EXPECT_EQ(picture.Count(kRow, kFill), filled) << percent;
    EXPECT_EQ(picture.Count(kRow, kBackground), 56) << percent;
    EXPECT_EQ(picture.at(28 + filled + 2, kRow.top), filled == 544 ? kBackground : kBar);
    EXPECT_EQ(picture.at(571, kRow.top), filled == 544 ? kFill : kBorder);
  }
  const Picture picture(FindOwnWindow());
  EXPECT_TRUE(picture.HasInk({28, 26, 572, 54}));
  EXPECT_FALSE(picture.HasInk({0, 0, 600, 26}));
  EXPECT_FALSE(picture.HasInk({28, 66, 572, 118})) << "no detail was given";
  EXPECT_FALSE(picture.HasInk({28, 198, 572, 224})) << "no download, no figures";
}

TEST_F(ScreenSurface, ForceCloseButtonFollowsTheState) {
  progress.set_download_progress("primary", 123456789, 987654321, 12345678);
  const HWND window = FindOwnWindow();
  const HWND button = GetDlgItem(window, 1001);
  ASSERT_NE(button, nullptr);
  EXPECT_FALSE(IsWindowVisible(button));
  progress.set_force_close_available(true);
  EXPECT_TRUE(IsWindowVisible(button) && IsWindowEnabled(button));
  EXPECT_EQ(PlaceOf(button), LayOutForceButton(600, 96));

  PostAndPump(window, WM_COMMAND, MAKEWPARAM(1001, BN_SETFOCUS));
  EXPECT_FALSE(progress.force_close_requested()) << "only a click counts";
  PostAndPump(button, BM_CLICK);
  EXPECT_TRUE(progress.force_close_requested());
  EXPECT_EQ(TextOf(button), L"Closing...");
  EXPECT_TRUE(IsWindowVisible(button) && !IsWindowEnabled(button));

  progress.set_force_close_available(false);
  EXPECT_FALSE(IsWindowVisible(button));
  PostAndPump(window, WM_COMMAND, MAKEWPARAM(1001, BN_CLICKED));
  EXPECT_FALSE(progress.force_close_requested()) << "it was not offered";
  progress.set_force_close_available(true);
  EXPECT_EQ(TextOf(button), L"Force close QORVA");
}

TEST_F(ScreenSurface, CloseMinimisesAndTheRunGoesOn) {
  progress.set_status("Title", "Detail", 10);
  const HWND window = FindOwnWindow();
  PostAndPump(window, WM_CLOSE);
  EXPECT_TRUE(IsIconic(window));
  progress.set_status("Title", "Detail", 20);
  EXPECT_EQ(FindOwnWindow(), window);
  EXPECT_TRUE(IsIconic(window)) << "progress does not bring it back in the user's way";
}

TEST_F(ScreenSurface, NewDpiTakesTheSuggestedPlaceAndMovesTheButton) {
  progress.set_status("Title", "Detail", 50);
  progress.set_force_close_available(true);
  const HWND window = FindOwnWindow();
  RECT suggested{10, 20, 10 + 1210, 20 + 520};
  SendMessageW(window, WM_DPICHANGED, MAKEWPARAM(192, 192), reinterpret_cast<LPARAM>(&suggested));
  Pump();
  RECT outer{}, client{};
  GetWindowRect(window, &outer);
  EXPECT_TRUE(EqualRect(&outer, &suggested));
  GetClientRect(window, &client);
  const HWND button = GetDlgItem(window, 1001);
  EXPECT_EQ(PlaceOf(button), LayOutForceButton(client.right, 192));
  EXPECT_EQ(Picture(window).at(56 + 4, 292 + 4), kFill);
  LOGFONTW font{};
  GetObjectW(std::bit_cast<HFONT>(SendMessageW(button, WM_GETFONT, 0, 0)), sizeof(font), &font);
  EXPECT_EQ(font.lfHeight, -ScaleForDpi(10, 192, 72));
}

TEST_F(ScreenSurface, LeavesNoGdiObjectsBehind) {
  const auto objects_after_use = [this] {
    for (int percent = 0; percent < 50; ++percent) progress.set_status("Title", "Detail", percent);
    progress.Destroy();
    return GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS);
  };
  const DWORD before = objects_after_use();  // with what the system keeps after a first window
  for (int round = 0; round < 3; ++round) EXPECT_LE(objects_after_use(), before);
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
