// A library that somebody has put where a program may look for one of the system's. A process that
// loads it leaves a line in a file beside it, its name with ".loaded" behind: the executable's path
// (UTF-8).

#include <windows.h>

#include <cstddef>

namespace {

void LeaveMark(HINSTANCE library) {
  constexpr wchar_t kExtension[] = L".loaded";
  constexpr DWORD kSize = 2048;
  static wchar_t name[kSize + 8];
  static wchar_t program[kSize];
  static char line[3 * kSize + 1];
  const DWORD length = GetModuleFileNameW(library, name, kSize);
  for (std::size_t i = 0; i < sizeof kExtension / sizeof kExtension[0]; ++i) {
    name[length + i] = kExtension[i];
  }
  const int units = static_cast<int>(GetModuleFileNameW(nullptr, program, kSize));
  int size = WideCharToMultiByte(CP_UTF8, 0, program, units, line, 3 * kSize, nullptr, nullptr);
  line[size++] = '\n';
  HANDLE file = CreateFileW(name, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  DWORD written = 0;
  WriteFile(file, line, static_cast<DWORD>(size), &written, nullptr);
  CloseHandle(file);
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) LeaveMark(library);
  return TRUE;
}
