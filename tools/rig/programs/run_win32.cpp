// The verb "run": starts a program, presses the buttons of its message boxes and waits for its end.

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/rig/programs/rig_tool_win32.h"

namespace zul::rig {
namespace {

using Json = nlohmann::json;

const std::map<int, std::string> kButtonNames = {
    {IDOK, "ok"}, {IDCANCEL, "cancel"}, {IDYES, "yes"}, {IDNO, "no"}};

/// Appends an event to the report.
void Note(const std::filesystem::path& report, const Json& event) {
  std::ofstream(report, std::ios::binary | std::ios::app)
      << event.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

/// The kind of icon that a control of another process shows. The handle of an icon is not valid in
/// other processes, so the colours on the screen decide. "unknown" when another window covers it.
const char* IconName(HWND icon) {
  RECT place{};
  GetWindowRect(icon, &place);
  const int width = place.right - place.left;
  const int height = place.bottom - place.top;
  const HWND on_top = WindowFromPoint({place.left + width / 2, place.top + height / 2});
  if (GetAncestor(on_top, GA_ROOT) != GetAncestor(icon, GA_ROOT)) return "unknown";
  const HDC screen = GetDC(nullptr);
  const HDC copy = CreateCompatibleDC(screen);
  const HBITMAP bitmap = CreateCompatibleBitmap(screen, width, height);
  SelectObject(copy, bitmap);  // freed by the end of the process
  BitBlt(copy, 0, 0, width, height, screen, place.left, place.top, SRCCOPY);
  std::map<std::string, int> counts;
  for (int at = 0; at < width * height; ++at) {
    const COLORREF colour = GetPixel(copy, at % width, at / width);
    const int red = GetRValue(colour);
    const int blue = GetBValue(colour);
    if (red > blue + 96) ++counts[red > GetGValue(colour) + 160 ? "error" : "warning"];
    if (blue > red + 64) ++counts["information"];
  }
  const char* name = "unknown";
  int most = width * height / 8;
  for (const auto& [candidate, count] : counts) {
    if (count > most) most = count, name = candidate.c_str();
  }
  return name;
}

struct Box {
  HWND window = nullptr;
  std::vector<HWND> buttons;  ///< empty while the box is still being built
  Json seen;
};

Box FindBox(DWORD pid) {
  const std::vector<HWND> windows = FindWindows(L"#32770", pid, L"QORVA Updater");
  if (windows.empty()) return {};
  Box box{windows.front(), {}, {{"icon", "none"}, {"text", ""}, {"buttons", Json::array()}}};
  for (const HWND child : ControlsOf(box.window)) {
    wchar_t kind[16] = L"";
    GetClassNameW(child, kind, 16);
    const auto style = GetWindowLongW(child, GWL_STYLE);
    if (kind == std::wstring(L"Button")) {
      const auto name = kButtonNames.find(GetDlgCtrlID(child));
      if (name == kButtonNames.end()) return {};  // the box is gone, because its process was killed
      box.buttons.push_back(child);
      box.seen["buttons"].push_back(name->second);
    } else if ((style & SS_TYPEMASK) != SS_ICON) {
      box.seen["text"] = TextOf(child);
    } else if ((style & WS_VISIBLE) != 0) {
      box.seen["icon"] = IconName(child);
    }
  }
  return box;
}

void Dismiss(const Box& box, const std::string& wanted) {
  HWND button = box.buttons.front();
  for (std::size_t i = 0; i < box.buttons.size(); ++i) {
    if (box.seen["buttons"][i] == wanted) button = box.buttons[i];
  }
  PostMessageW(box.window, WM_COMMAND, MAKEWPARAM(GetDlgCtrlID(button), BN_CLICKED),
               reinterpret_cast<LPARAM>(button));
  WaitUntil(5000, [&box] { return !IsWindow(box.window); });
}

}  // namespace

int RunProgram(const Arguments& arguments) {
  const std::filesystem::path report = Widen(OptionValue(arguments, "--report").value());
  const std::filesystem::path go = report.native() + L".go";
  const std::wstring folder = Widen(OptionValue(arguments, "--folder").value());
  const auto press = OptionValue(arguments, "--press");
  const bool without_output = OptionValue(arguments, "--no-output").has_value();
  const bool wait = OptionValue(arguments, "--wait-at-boxes").has_value();
  std::wstring temp(32768, L'\0');
  GetEnvironmentVariableW(L"RIG_TEMP", temp.data(), static_cast<DWORD>(temp.size()));
  for (const wchar_t* name : {L"TEMP", L"TMP"}) SetEnvironmentVariableW(name, temp.c_str());

  const std::wstring marker = L" -- ";
  const std::wstring whole = GetCommandLineW();
  std::wstring command = whole.substr(whole.find(marker) + marker.size());
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  if (without_output) startup.dwFlags = STARTF_USESTDHANDLES;  // with three null handles
  PROCESS_INFORMATION process{};
  const auto start = [&] {
    return CreateProcessW(nullptr, command.data(), nullptr, nullptr, !without_output, 0, nullptr,
                          folder.c_str(), &startup, &process) != FALSE;
  };
  // On a busy machine one start in some 500 fails with Wine's own error, before the program runs.
  if (!start() && (GetLastError() != ERROR_INTERNAL_ERROR || !start())) {
    Note(report, {{"failed", GetLastError()}});
    return 1;
  }
  Note(report, {{"pid", process.dwProcessId}});
  const bool ended = WaitUntil(OptionNumber(arguments, "--timeout-ms"), [&] {
    if (WaitForSingleObject(process.hProcess, 0) == WAIT_OBJECT_0) return true;
    if (!press) return false;
    if (const Box box = FindBox(process.dwProcessId); !box.buttons.empty()) {
      Note(report, {{"box", box.seen}});
      if (wait) WaitUntil(60000, [&go] { return std::filesystem::exists(go); });
      Dismiss(box, *press);
    }
    return false;
  });
  DWORD code = 0;
  GetExitCodeProcess(process.hProcess, &code);
  if (!ended) TerminateProcess(process.hProcess, 1);
  Note(report, {{"exit", ended ? Json(code) : Json("timeout")}});
  return 0;
}

}  // namespace zul::rig
