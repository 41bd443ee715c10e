#include "core/system_library_win32.h"

namespace zul {

HMODULE LoadSystemLibrary(const wchar_t* name) {
  return ::LoadLibraryExW(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

LateLibraries::LateLibraries(std::initializer_list<const wchar_t*> names) {
  for (const wchar_t* name : names) static_cast<void>(LoadSystemLibrary(name));
}

void RestrictLibrarySearch() {
  // Looked up by name, because Windows 7 has the function only with an update. Every process has
  // kernel32 loaded.
  using SetDefaults = BOOL(WINAPI*)(DWORD);
  const auto set_defaults = reinterpret_cast<SetDefaults>(reinterpret_cast<void (*)()>(
      ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "SetDefaultDllDirectories")));
  if (set_defaults != nullptr) set_defaults(LOAD_LIBRARY_SEARCH_SYSTEM32);
  ::SetDllDirectoryW(L"");  // removes the current folder from the default search
}

}  // namespace zul
