#include "core/system_library_win32.h"

namespace zul {

HMODULE LoadSystemLibrary(const wchar_t* name) {
  return ::LoadLibraryExW(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

LateLibraries::LateLibraries(std::initializer_list<const wchar_t*> names) {
  for (const wchar_t* name : names) static_cast<void>(LoadSystemLibrary(name));
}

void RestrictLibrarySearch() {
  // Looked up, since the oldest systems that run us have it only with an update of their own.
  // kernel32 is loaded with every process.
  using SetDefaults = BOOL(WINAPI*)(DWORD);
  const auto set_defaults = reinterpret_cast<SetDefaults>(reinterpret_cast<void (*)()>(
      ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "SetDefaultDllDirectories")));
  if (set_defaults != nullptr) set_defaults(LOAD_LIBRARY_SEARCH_SYSTEM32);
  ::SetDllDirectoryW(L"");  // takes the current folder out of the older search
}

}  // namespace zul
