// The real window on the real screen. The end-to-end runs test a press of its button.

#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <bit>

#include "ui/message_pump.h"
#include "ui/progress_layout.h"
#include "ui/progress_window.h"

namespace zul {
namespace {

constexpr const wchar_t* kClass = L"ZULRipUpdaterProgressWindow";

/// The progress window of this process. Other tests may have one on the same display.
HWND FindOwnWindow() {
  HWND window = nullptr;
  DWORD pid = 0;
  while (pid != GetCurrentProcessId()) {
    window = FindWindowExW(nullptr, window, kClass, nullptr);
    if (window == nullptr) return nullptr;
    GetWindowThreadProcessId(window, &pid);
  }
  return window;
}

const wchar_t* refused_class = nullptr;

/// A hook that makes the creation of a window of `refused_class` fail.
LRESULT CALLBACK RefuseCreation(int code, WPARAM wparam, LPARAM lparam) {
  if (code != HCBT_CREATEWND) return CallNextHookEx(nullptr, code, wparam, lparam);
  std::array<wchar_t, 64> name{};
  GetClassNameW(std::bit_cast<HWND>(wparam), name.data(), static_cast<int>(name.size()));
  return lstrcmpiW(name.data(), refused_class) == 0 ? 1 : 0;
}

class ScreenSurface : public testing::Test {
 protected:
  UpdateProgressWindow progress{CreateScreenSurface()};
};

TEST_F(ScreenSurface, ContinuesWithoutAWindowThatCannotBeCreated) {
  for (const wchar_t* refused : {kClass, L"BUTTON"}) {
    refused_class = refused;
    const HHOOK hook = SetWindowsHookExW(WH_CBT, &RefuseCreation, nullptr, GetCurrentThreadId());
    progress.set_status("Title", "Detail", 10);
    progress.set_force_close_available(true);
    EXPECT_EQ(FindOwnWindow(), nullptr) << "an incomplete window must not remain";
    UnhookWindowsHookEx(hook);
  }
  progress.set_status("Title", "Detail", 20);
  ASSERT_NE(FindOwnWindow(), nullptr);
  EXPECT_TRUE(IsWindowVisible(GetDlgItem(FindOwnWindow(), 1001))) << "the state was kept";
  progress.Destroy();
  EXPECT_EQ(FindOwnWindow(), nullptr);
}

TEST_F(ScreenSurface, FillsTheBarByThePercentAndScalesWithTheDpi) {
  progress.set_status("Title", "Detail", 37);
  progress.set_force_close_available(true);
  const HWND window = FindOwnWindow();
  RECT client{};
  GetClientRect(window, &client);
  EXPECT_EQ(client.right, kProgressClientWidth);
  EXPECT_EQ(client.bottom, kProgressClientHeight);
  int filled = 0;
  const HDC dc = GetDC(window);
  for (int x = 0; x < client.right; ++x) {  // a line of the bar above its text
    if (GetPixel(dc, x, 150) == RGB(91, 158, 245)) ++filled;
  }
  ReleaseDC(window, dc);
  EXPECT_EQ(filled, 201);

  // Twice the size. The button keeps its distance from the right edge.
  RECT suggested{10, 20, 10 + 1210, 20 + 520};
  SendMessageW(window, WM_DPICHANGED, MAKEWPARAM(192, 192), std::bit_cast<LPARAM>(&suggested));
  RECT outer{}, button{};
  GetWindowRect(window, &outer);
  EXPECT_TRUE(EqualRect(&outer, &suggested));
  GetClientRect(window, &client);
  GetWindowRect(GetDlgItem(window, 1001), &button);
  MapWindowPoints(nullptr, window, reinterpret_cast<POINT*>(&button), 2);
  EXPECT_EQ(button.left, client.right - 396);
  EXPECT_EQ(button.bottom, 452);
}

TEST_F(ScreenSurface, CloseMinimisesTheWindow) {
  progress.set_status("Title", "Detail", 10);
  const HWND window = FindOwnWindow();
  SendMessageW(window, WM_CLOSE, 0, 0);
  progress.set_status("Title", "Detail", 20);
  EXPECT_EQ(FindOwnWindow(), window);
  EXPECT_TRUE(IsIconic(window)) << "progress must not restore the window";
}

TEST_F(ScreenSurface, FreesItsGdiObjects) {
  const auto objects_after_use = [this] {
    for (int percent = 0; percent < 50; ++percent) progress.set_status("Title", "Detail", percent);
    progress.Destroy();
    return GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS);
  };
  const DWORD before = objects_after_use();  // the system keeps some objects after a first window
  EXPECT_LE(objects_after_use(), before);
}

TEST_F(ScreenSurface, KeepsQuitOutOfTheQueueUntilTheUpdateEnds) {
  MSG message{};
  PostQuitMessage(7);
  progress.set_status("Title", "Detail", 10);
  EXPECT_FALSE(PeekMessageW(&message, nullptr, WM_QUIT, WM_QUIT, PM_NOREMOVE));
  progress.Destroy();
  RepostPendingQuit();
  ASSERT_TRUE(PeekMessageW(&message, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE));
  EXPECT_EQ(message.wParam, 7U);
}

}  // namespace
}  // namespace zul
