// A library that an attacker gives the name of a system library and puts where a program may search
// for it. A process that loads it appends the path of its executable (UTF-16) as a line to a file
// beside the library, which has the library's name followed by ".loaded".

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
