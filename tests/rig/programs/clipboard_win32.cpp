// The clipboard, seen and kept busy by another process.
//
//   clipboard --read
//       prints {"text":"..."}, or {"text":null} when it holds no text (UTF-8)
//   clipboard --write TEXT [--keep-open]
//       prints "written" and stays until standard input ends: under Wine a clipboard lasts as long
//       as some program runs. With --keep-open nobody else can open it until a line comes.
//
// Exit code 0; 1 when the clipboard cannot be had within 5 s; 64 usage.

#include <windows.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "core/text.h"
#include "tests/rig/programs/program_support_win32.h"

namespace zul::rig {
namespace {

constexpr char kUsage[] = "usage: clipboard --read | --write TEXT [--keep-open]";

bool Open(HWND window = nullptr) {
  const std::uint64_t end = GetTickCount64() + 5000;
  while (!OpenClipboard(window)) {
    if (GetTickCount64() > end) return false;
    Sleep(10);
  }
  return true;
}

int Read() {
  if (!Open()) return 1;
  nlohmann::json text;
  if (HANDLE block = GetClipboardData(CF_UNICODETEXT); block != nullptr) {
    text = WideToUtf8Lossy(static_cast<const wchar_t*>(GlobalLock(block)));
    GlobalUnlock(block);
  }
  CloseClipboard();
  PrintLine(nlohmann::json{{"text", text}}.dump());
  return 0;
}

/// False at the end of standard input.
bool WaitForInput() {
  char byte = 0;
  DWORD read = 0;
  return ReadFile(GetStdHandle(STD_INPUT_HANDLE), &byte, 1, &read, nullptr) && read != 0;
}

int Write(const std::wstring& text, bool keep_open) {
  // Under Wine those who open it without a window do not keep each other out.
  const HWND window = keep_open ? CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE,
                                                  nullptr, nullptr, nullptr)
                                : nullptr;
  if (!Open(window)) return 1;
  const std::size_t size = (text.size() + 1) * sizeof(wchar_t);
  HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, size);
  std::memcpy(GlobalLock(block), text.c_str(), size);
  GlobalUnlock(block);
  EmptyClipboard();
  SetClipboardData(CF_UNICODETEXT, block);
  if (!keep_open) CloseClipboard();
  PrintLine("written");
  if (keep_open && WaitForInput()) {
    CloseClipboard();
    DestroyWindow(window);  // as its owner it would be asked, and would not answer
  }
  while (WaitForInput()) {
  }
  return 0;
}

int Run() {
  Options options(CommandLineArguments());
  const bool read = options.TakeFlag("--read");
  const bool keep_open = options.TakeFlag("--keep-open");
  const auto text = options.TakeValue("--write");
  if (!options.empty() || read == text.has_value() || (read && keep_open)) return Usage(kUsage);
  return read ? Read() : Write(Widen(*text), keep_open);
}

}  // namespace
}  // namespace zul::rig

int wmain() {
  return zul::rig::Run();
}
