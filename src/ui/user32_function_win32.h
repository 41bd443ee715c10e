#pragma once

// Functions of user32.dll that older systems do not have. For _win32.cpp files only.

#include <windows.h>

#include <bit>

namespace zul {

/// The function `name` of user32.dll, which every process with windows has loaded. Null on systems
/// that do not have it.
template <typename Function>
[[nodiscard]] Function FindUser32Function(const char* name) {
  const HMODULE module = ::GetModuleHandleW(L"user32.dll");
  return module == nullptr ? nullptr : std::bit_cast<Function>(::GetProcAddress(module, name));
}

}  // namespace zul
