// A library that somebody has put where a program may look for one of the system's. A process that
// loads it leaves a line in a file beside it, its name with ".loaded" behind: the executable's path
// (UTF-16).

#include <windows.h>

#include <cwchar>

extern "C" BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, LPVOID) {
  if (reason != DLL_PROCESS_ATTACH) return TRUE;
  constexpr DWORD kSize = 2048;
  static wchar_t name[kSize + 8];
  static wchar_t program[kSize + 1];
  GetModuleFileNameW(library, name, kSize);
  GetModuleFileNameW(nullptr, program, kSize);
  HANDLE file = CreateFileW(std::wcscat(name, L".loaded"), FILE_APPEND_DATA,
                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, 0, nullptr);
  const auto bytes = static_cast<DWORD>(sizeof(wchar_t) * std::wcslen(std::wcscat(program, L"\n")));
  DWORD written = 0;
  WriteFile(file, program, bytes, &written, nullptr);
  CloseHandle(file);
  return TRUE;
}
