// The real window on the real screen. The end-to-end runs test a press of its button.

#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <string_view>

#include "ui/message_pump.h"
#include "ui/progress_layout.h"
#include "ui/progress_window.h"

namespace zul {
namespace {

constexpr const wchar_t* kClass = L"ZULRipUpdaterProgressWindow";

/// The progress window of this thread.
HWND FindOwnWindow() {
  HWND found = nullptr;
  const auto take = [](HWND window, LPARAM result) -> BOOL {
    wchar_t name[64] = L"";
    if (GetClassNameW(window, name, 64) == 0 || name != std::wstring_view(kClass)) return TRUE;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the enumeration passes the pointer as an integer
    *reinterpret_cast<HWND*>(result) = window;
    return FALSE;
  };
  EnumThreadWindows(GetCurrentThreadId(), take, reinterpret_cast<LPARAM>(&found));
  return found;
}

constexpr LPARAM kWildPointer = 0x10;

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

  // Twice the size around the same centre. The button keeps its distance from the right edge.
  RECT before{}, after{}, button{};
  GetWindowRect(window, &before);
  for (const WORD dpi : {WORD{0}, WORD{192}, WORD{0xFFFF}}) {
    PostMessageW(window, WM_DPICHANGED, MAKEWPARAM(dpi, dpi), kWildPointer);
  }
  progress.set_status("Title", "Detail", 37);
  GetWindowRect(window, &after);
  EXPECT_NEAR(before.left + before.right, after.left + after.right, 1);
  EXPECT_NEAR(before.top + before.bottom, after.top + after.bottom, 1);
  GetClientRect(window, &client);
  EXPECT_EQ(client.right, 2 * kProgressClientWidth);
  EXPECT_NEAR(client.bottom, 2 * kProgressClientHeight, 24);  // Wine's caption does not grow
  GetWindowRect(GetDlgItem(window, 1001), &button);
  MapWindowPoints(nullptr, window, reinterpret_cast<POINT*>(&button), 2);
  EXPECT_EQ(button.left, client.right - 396);
  EXPECT_EQ(button.bottom, 452);
}

TEST_F(ScreenSurface, CloseMinimisesTheWindow) {
  progress.set_status("Title", "Detail", 10);
  const HWND window = FindOwnWindow();
  const auto release_over = [window](WPARAM pressed, WPARAM released) {
    SendMessageW(window, WM_NCLBUTTONDOWN, pressed, 0);
    SendMessageW(window, WM_NCLBUTTONUP, released, 0);
  };
  release_over(HTCLOSE, HTMINBUTTON);
  EXPECT_FALSE(IsIconic(window)) << "a press that ends elsewhere";
  for (int way = 0; way < 4; ++way) {
    if (way == 0) SendMessageW(window, WM_CLOSE, 0, 0);
    if (way == 1) SendMessageW(window, WM_SYSCOMMAND, SC_CLOSE, 0);
    if (way > 1) release_over(way == 2 ? HTCLOSE : HTMINBUTTON, way == 2 ? HTCLOSE : HTMINBUTTON);
    progress.set_status("Title", "Detail", 20);
    EXPECT_EQ(FindOwnWindow(), window);
    EXPECT_TRUE(IsIconic(window)) << "progress must not restore the window, way " << way;
    ShowWindow(window, SW_RESTORE);
  }
}

TEST_F(ScreenSurface, IsMovedByItsCaption) {
  progress.set_status("Title", "Detail", 10);
  const HWND window = FindOwnWindow();
  RECT start{};
  GetWindowRect(window, &start);
  const struct {
    UINT message;
    WPARAM wparam;
    int cursor, moved;  ///< from the start, in pixels to the right and downwards
  } steps[] = {{WM_NCLBUTTONDOWN, HTCAPTION, 0, 0},  {WM_MOUSEMOVE, MK_LBUTTON, 30, 30},
               {WM_MOUSEMOVE, MK_LBUTTON, 50, 50},   {WM_LBUTTONUP, 0, 50, 50},
               {WM_MOUSEMOVE, MK_LBUTTON, 90, 50},  // after the release
               {WM_NCLBUTTONDOWN, HTCAPTION, 0, 50}, {WM_MOUSEMOVE, 0, 90, 50}};  // no button
  for (const auto& step : steps) {
    SetCursorPos(start.left + 20 + step.cursor, start.top + 5 + step.cursor);
    SendMessageW(window, step.message, step.wparam, 0);
    RECT now{};
    GetWindowRect(window, &now);
    EXPECT_EQ(now.left - start.left, step.moved) << &step - steps;
    EXPECT_EQ(now.bottom - start.bottom, step.moved) << &step - steps;
  }
}

// A loop of the system would last for ever here, and a pointer that is followed ends the program.
TEST_F(ScreenSurface, SurvivesEveryMessageOfAnotherProcess) {
  progress.set_status("Title", "Detail", 10);
  progress.set_force_close_available(true);
  const HWND window = FindOwnWindow();
  const HWND button = GetDlgItem(window, 1001);
  const auto post = [&](HWND target, UINT message, WPARAM wparam) {
    // The system refuses to post most messages that have a pointer.
    if (message == WM_QUIT || !PostMessageW(target, message, wparam, kWildPointer)) return;
    PumpPendingMessages();
  };
  for (const HWND target : {window, button}) {
    for (UINT message = 0; message < WM_USER + 64; ++message) post(target, message, 0x10);
    for (UINT message = 0x1600; message < 0x1610; ++message) post(target, message, 0x10);  // BCM_*
    for (WPARAM command = 0; command < 0x20; ++command) {
      post(target, WM_SYSCOMMAND, SC_SIZE + command * 0x10);
      for (UINT press = WM_NCLBUTTONDOWN; press <= WM_NCXBUTTONDBLCLK; ++press) {
        post(target, press, command);
      }
    }
  }
  EXPECT_EQ(FindOwnWindow(), window);
  EXPECT_TRUE(IsWindow(button) && progress.force_visible());
}

TEST_F(ScreenSurface, KeysReachTheButtonOnlyAfterTab) {
  const auto press = [this](int key) {
    PostMessageW(GetFocus(), WM_KEYDOWN, static_cast<WPARAM>(key), 1);
    PostMessageW(GetFocus(), WM_KEYUP, static_cast<WPARAM>(key), 0xC0000001);
    progress.set_status("Title", "Detail", 10);
    return progress.force_close_requested();
  };
  progress.set_status("Title", "Detail", 10);
  SetFocus(FindOwnWindow());
  for (const int key : {VK_SPACE, VK_RETURN}) {
    progress.set_force_close_available(true);
    EXPECT_FALSE(press(key)) << "the button took the focus";
    EXPECT_FALSE(press(VK_TAB) || press(VK_TAB) || press(key)) << "a second Tab leaves the button";
    EXPECT_FALSE(press(VK_TAB));
    EXPECT_TRUE(press(key));
    progress.set_force_close_available(false);
    EXPECT_FALSE(press(VK_TAB) || press(key));
  }
}

TEST_F(ScreenSurface, StaysBelowTheModalBoxesOfAProcessToWhichItGivesWay) {
  constexpr DWORD kShown = WS_POPUP | WS_VISIBLE;
  const auto make = [](HWND owner) {
    return CreateWindowExW(0, L"STATIC", L"", kShown, 0, 0, 9, 9, owner, nullptr, nullptr, nullptr);
  };
  const HWND owner = make(nullptr);
  const HWND box = make(owner);
  progress.set_status("Title", "Detail", 10);
  const HWND window = FindOwnWindow();
  const auto is_in_front_of_box = [&] {
    HWND next = window;
    while (next != nullptr && next != box) next = GetWindow(next, GW_HWNDNEXT);
    return next == box;
  };
  const struct {
    bool modal;
    std::vector<std::uint32_t> pids;
    bool topmost, in_front;
  } steps[] = {{true, {}, true, true},
               {true, {GetCurrentProcessId()}, false, false},
               {false, {GetCurrentProcessId()}, false, true},  // a palette, not a modal box
               {true, {4}, false, true}};                      // of another process
  for (const auto& step : steps) {
    EnableWindow(owner, !step.modal);
    progress.give_way_to({});
    progress.give_way_to(step.pids);
    EXPECT_EQ((GetWindowLongW(window, GWL_EXSTYLE) & WS_EX_TOPMOST) != 0, step.topmost);
    EXPECT_EQ(is_in_front_of_box(), step.in_front) << &step - steps;
  }
  DestroyWindow(owner);
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
