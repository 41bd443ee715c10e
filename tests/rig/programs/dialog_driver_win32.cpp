// Reads and presses message boxes of other processes, and asks and tells other processes' windows.
// One JSON object on one line (UTF-8) goes to standard output.
//
//   dialog_driver --title TEXT [--pid N] [--timeout-ms MS] --press ok|yes|no|cancel|none
//       waits (10000 ms unless told) for a message box with exactly this title, prints
//       {"buttons":["yes","no"],"closed":true,"default":"no","icon":"error","pid":80,"pressed":"no",
//        "text":"...","title":"..."}
//       and presses the button. "icon" is error, warning, information, question, none, or unknown
//       when the picture is covered or not recognised. "closed": the box was gone within 5 s.
//       Exit code 0; 1 and {"found":false} when none came or the process ended before; 2 when it
//       has no such button ("pressed" is "" then) or did not close.
//   dialog_driver --title TEXT [--pid N] --count
//       prints {"count":N}, the number of such boxes at the moment. Exit code 0.
//   dialog_driver --window-class CLASS [--pid N] [--timeout-ms MS] --probe
//       waits (0 ms unless told) for a visible top-level window of the class, prints
//       {"exists":true,"minimised":false,"pid":80,"rect":[left,top,right,bottom],"responds":true,
//        "response_ms":1,"title":"..."}
//       with the time that a WM_NULL took, at most 5000 ms. Exit code 0; 1 and {"exists":false}.
//   dialog_driver --window-class CLASS [--pid N] --close
//       posts WM_CLOSE to all windows of the class, prints {"windows":N}. Exit code 0; 1 for none.
//   dialog_driver --window-class CLASS [--pid N] --command ID
//       the same with message 273 (WM_COMMAND), ID and 0.
//   dialog_driver --window-class CLASS [--pid N] [--timeout-ms MS] --click ID
//       waits (0 ms unless told) until a window of the class shows a button of this id that can be
//       pressed, prints {"clicked":true,"text":"Force close QORVA"} and clicks it. Exit code 0; 1
//       and {"clicked":false}.
// Wrong arguments: usage, exit code 64.

#include <windows.h>

#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/handle_win32.h"
#include "core/text.h"
#include "tests/rig/programs/dialog_icon_win32.h"
#include "tests/rig/programs/program_support_win32.h"

namespace zul::rig {
namespace {

using Json = nlohmann::json;

constexpr char kUsage[] =
    "usage: dialog_driver --title TEXT [--pid N] [--timeout-ms MS] --press ok|yes|no|cancel|none\n"
    "       dialog_driver --title TEXT [--pid N] --count\n"
    "       dialog_driver --window-class CLASS [--pid N] [--timeout-ms MS] --probe\n"
    "       dialog_driver --window-class CLASS [--pid N] --close\n"
    "       dialog_driver --window-class CLASS [--pid N] --command ID\n"
    "       dialog_driver --window-class CLASS [--pid N] [--timeout-ms MS] --click ID";
constexpr wchar_t kDialogClass[] = L"#32770";
constexpr UINT kAnswerMs = 5000;

struct Button {
  int id;
  const char* name;
};
constexpr Button kButtons[] = {{IDOK, "ok"},       {IDCANCEL, "cancel"}, {IDABORT, "abort"},
                               {IDRETRY, "retry"}, {IDIGNORE, "ignore"}, {IDYES, "yes"},
                               {IDNO, "no"}};

const char* ButtonName(int id) {
  for (const Button& button : kButtons) {
    if (button.id == id) return button.name;
  }
  return "";
}

int ButtonId(std::string_view name) {
  for (const Button& button : kButtons) {
    if (button.name == name) return button.id;
  }
  return 0;
}

DWORD ProcessOf(HWND window) {
  DWORD pid = 0;
  GetWindowThreadProcessId(window, &pid);
  return pid;
}

LRESULT Ask(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
  DWORD_PTR answer = 0;
  SendMessageTimeoutW(window, message, wparam, lparam, SMTO_NORMAL, kAnswerMs, &answer);
  return static_cast<LRESULT>(answer);
}

/// The whole text of a window or control of another process.
std::string TextOf(HWND window) {
  std::wstring text(static_cast<std::size_t>(Ask(window, WM_GETTEXTLENGTH, 0, 0)) + 1, L'\0');
  const LRESULT length =
      Ask(window, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()));
  text.resize(static_cast<std::size_t>(length));
  return WideToUtf8Lossy(text);
}

std::wstring ClassOf(HWND window) {
  wchar_t name[64] = L"";
  return {name, static_cast<std::size_t>(GetClassNameW(window, name, std::size(name)))};
}

/// Top-level windows of a class; of any title and process unless told.
std::vector<HWND> FindWindows(const std::wstring& window_class, const wchar_t* title, DWORD pid) {
  std::vector<HWND> found;
  HWND window = nullptr;
  while ((window = FindWindowExW(nullptr, window, window_class.c_str(), title)) != nullptr) {
    if (IsWindowVisible(window) && (pid == 0 || ProcessOf(window) == pid)) found.push_back(window);
  }
  return found;
}

/// Asks every 10 ms until the answer is yes or the time is over.
bool WaitUntil(std::uint64_t timeout_ms, const std::function<bool()>& reached) {
  const std::uint64_t end = GetTickCount64() + timeout_ms;
  while (!reached()) {
    if (GetTickCount64() >= end) return false;
    Sleep(10);
  }
  return true;
}

struct DialogParts {
  HWND icon = nullptr;
  std::string text;
  Json buttons = Json::array();
  std::string standard_button;  ///< what Enter presses
};

DialogParts PartsOf(HWND dialog) {
  DialogParts parts;
  HWND child = nullptr;
  while ((child = FindWindowExW(dialog, child, nullptr, nullptr)) != nullptr) {
    const std::wstring kind = ClassOf(child);
    const auto style = GetWindowLongW(child, GWL_STYLE);
    if (kind == L"Button") {
      parts.buttons.push_back(ButtonName(GetDlgCtrlID(child)));
      if ((style & BS_TYPEMASK) == BS_DEFPUSHBUTTON) parts.standard_button = parts.buttons.back();
    } else if (kind == L"Static" && (style & SS_TYPEMASK) != SS_ICON) {
      parts.text += TextOf(child);
    } else if (kind == L"Static" && Ask(child, STM_GETICON, 0, 0) != 0) {
      parts.icon = child;
    }
  }
  return parts;
}

int PressInDialog(const std::wstring& title, DWORD pid, std::uint64_t timeout_ms,
                  const std::string& press) {
  const UniqueKernelHandle process(pid == 0 ? nullptr : OpenProcess(SYNCHRONIZE, FALSE, pid));
  const auto process_is_gone = [&] {
    return pid != 0 && (!process || WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0);
  };
  std::vector<HWND> dialogs;
  // A box that is about to be shown has its frame before its buttons.
  const auto box_is_up = [&] {
    dialogs = FindWindows(kDialogClass, title.c_str(), pid);
    return !dialogs.empty() &&
           FindWindowExW(dialogs.front(), nullptr, L"Button", nullptr) != nullptr;
  };
  bool found = false;
  WaitUntil(timeout_ms, [&] { return (found = box_is_up()) || process_is_gone(); });
  if (!found) {
    PrintLine(Json{{"found", false}}.dump());
    return 1;
  }
  const HWND dialog = dialogs.front();
  const DialogParts parts = PartsOf(dialog);
  Json report{{"title", TextOf(dialog)},
              {"text", parts.text},
              {"icon", IconName(parts.icon)},
              {"buttons", parts.buttons},
              {"pid", ProcessOf(dialog)},
              {"default", parts.standard_button},
              {"pressed", ""},
              {"closed", false}};
  bool done = press == "none";
  const int id = ButtonId(press);
  if (const HWND button = id == 0 ? nullptr : GetDlgItem(dialog, id); button != nullptr) {
    PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(id, BN_CLICKED), reinterpret_cast<LPARAM>(button));
    done = WaitUntil(kAnswerMs, [&] { return !IsWindow(dialog); });
    report["pressed"] = press;
    report["closed"] = done;
  }
  PrintLine(report.dump(-1, ' ', false, Json::error_handler_t::replace));
  return done ? 0 : 2;
}

int Probe(const std::wstring& window_class, DWORD pid, std::uint64_t timeout_ms) {
  std::vector<HWND> windows;
  if (!WaitUntil(timeout_ms, [&] {
        windows = FindWindows(window_class, nullptr, pid);
        return !windows.empty();
      })) {
    PrintLine(Json{{"exists", false}}.dump());
    return 1;
  }
  const HWND window = windows.front();
  RECT rect{};
  GetWindowRect(window, &rect);
  wchar_t title[256] = L"";
  GetWindowTextW(window, title, std::size(title));  // does not wait for the other process
  const std::uint64_t start = GetTickCount64();
  DWORD_PTR answer = 0;
  const bool responds =
      SendMessageTimeoutW(window, WM_NULL, 0, 0, SMTO_BLOCK, kAnswerMs, &answer) != 0;
  PrintLine(Json{{"exists", true},
                 {"title", WideToUtf8Lossy(title)},
                 {"pid", ProcessOf(window)},
                 {"rect", {rect.left, rect.top, rect.right, rect.bottom}},
                 {"minimised", IsIconic(window) != FALSE},
                 {"responds", responds},
                 {"response_ms", GetTickCount64() - start}}
                .dump(-1, ' ', false, Json::error_handler_t::replace));
  return 0;
}

int PostToAll(const std::wstring& window_class, DWORD pid, UINT message, WPARAM wparam) {
  const std::vector<HWND> windows = FindWindows(window_class, nullptr, pid);
  for (const HWND window : windows) PostMessageW(window, message, wparam, 0);
  PrintLine(Json{{"windows", windows.size()}}.dump());
  return windows.empty() ? 1 : 0;
}

int Click(const std::wstring& window_class, DWORD pid, std::uint64_t timeout_ms, int id) {
  HWND button = nullptr;
  const bool found = WaitUntil(timeout_ms, [&] {
    for (const HWND window : FindWindows(window_class, nullptr, pid)) {
      button = GetDlgItem(window, id);
      if (button != nullptr && IsWindowVisible(button) && IsWindowEnabled(button)) return true;
    }
    return false;
  });
  Json report{{"clicked", found}};
  if (found) {
    report["text"] = TextOf(button);
    PostMessageW(button, BM_CLICK, 0, 0);
  }
  PrintLine(report.dump());
  return found ? 0 : 1;
}

int Run() {
  Options options(CommandLineArguments());
  const auto title = options.TakeValue("--title");
  const auto window_class = options.TakeValue("--window-class");
  const auto pid = static_cast<DWORD>(options.TakeNumber("--pid").value_or(0));
  const auto timeout_ms = options.TakeNumber("--timeout-ms");
  const auto press = options.TakeValue("--press");
  const auto command = options.TakeNumber("--command");
  const auto click = options.TakeNumber("--click");
  const bool count = options.TakeFlag("--count");
  const bool probe = options.TakeFlag("--probe");
  const bool close = options.TakeFlag("--close");
  const int title_modes = (press ? 1 : 0) + (count ? 1 : 0);
  const int class_modes = (command ? 1 : 0) + (click ? 1 : 0) + (probe ? 1 : 0) + (close ? 1 : 0);
  const bool sound = options.empty() && title.has_value() != window_class.has_value() &&
                     title_modes == (title ? 1 : 0) && class_modes == (title ? 0 : 1) &&
                     (!press || *press == "none" || ButtonId(*press) != 0);
  if (!sound) return Usage(kUsage);
  if (press) return PressInDialog(Widen(*title), pid, timeout_ms.value_or(10000), *press);
  if (count) {
    PrintLine(Json{{"count", FindWindows(kDialogClass, Widen(*title).c_str(), pid).size()}}.dump());
    return 0;
  }
  if (probe) return Probe(Widen(*window_class), pid, timeout_ms.value_or(0));
  if (click) {
    return Click(Widen(*window_class), pid, timeout_ms.value_or(0), static_cast<int>(*click));
  }
  if (close) return PostToAll(Widen(*window_class), pid, WM_CLOSE, 0);
  return PostToAll(Widen(*window_class), pid, WM_COMMAND, static_cast<WPARAM>(*command));
}

}  // namespace
}  // namespace zul::rig

int wmain() {
  return zul::rig::Run();
}
