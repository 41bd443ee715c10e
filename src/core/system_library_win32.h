#pragma once

// System libraries that not every process has loaded. For _win32.cpp files only. They are loaded
// from the system folder only: a file of the same name beside the executable, in the current folder
// or on the search path is never loaded, so write access to these folders does not let another user
// run code in the updater.

#include <windows.h>

#include <initializer_list>
#include <type_traits>

namespace zul {

/// Loads the library `name` from the system folder on first use and keeps it until the process
/// ends. Null on failure; GetLastError has the reason.
[[nodiscard]] HMODULE LoadSystemLibrary(const wchar_t* name);

/// Restricts the process's search for libraries by name to the system folder, also for libraries
/// that the system's own libraries load later. Call it before anything else.
void RestrictLibrarySearch();

/// Loads, on construction, libraries that another system library would load later and by name only.
/// Some systems ignore the restricted search in such a load, but they use a library that is already
/// loaded. A missing library is not an error here; the library that needs it reports the error.
class LateLibraries {
 public:
  LateLibraries(std::initializer_list<const wchar_t*> names);
};

/// One function of a system library, looked up on construction. Usage:
///   const SystemFunction<decltype(::RmEndSession)> end(L"rstrtmgr.dll", "RmEndSession");
template <typename Signature>
class SystemFunction {
 public:
  SystemFunction(const wchar_t* library, const char* name) {
    if (HMODULE module = LoadSystemLibrary(library)) {
      // GetProcAddress returns every function as one type.
      function_ =
          reinterpret_cast<Pointer>(reinterpret_cast<void (*)()>(::GetProcAddress(module, name)));
    }
    if (function_ == nullptr) error_ = ::GetLastError();
  }

  /// The function, so that this object can be called and tested like a pointer. Null when it is
  /// unavailable.
  operator std::add_pointer_t<Signature>() const { return function_; }
  /// GetLastError's value when the function is unavailable, else 0.
  [[nodiscard]] DWORD error() const { return error_; }

 private:
  using Pointer = std::add_pointer_t<Signature>;
  Pointer function_ = nullptr;
  DWORD error_ = 0;
};

}  // namespace zul
