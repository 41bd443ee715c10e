#pragma once

// Libraries of the system that are not loaded with every process, for _win32.cpp files only. They
// are loaded from the system folder and from nowhere else: a file of the same name beside the
// executable, in the current folder or on the search path is never looked at, so that whoever may
// write there cannot have code run in the updater.

#include <windows.h>

#include <initializer_list>
#include <type_traits>

namespace zul {

/// The library `name` of the system folder, loaded on first use and kept until the process ends.
/// Null when there is none; GetLastError then says why.
[[nodiscard]] HMODULE LoadSystemLibrary(const wchar_t* name);

/// Makes the system folder the only place where this process looks for libraries by name, also
/// those that the system's own libraries load later. To be called before anything else.
void RestrictLibrarySearch();

/// Libraries that another one of the system's would load late and by their names alone, loaded when
/// this is made and kept. Not every system then keeps to the folder that the process has chosen,
/// but what is there already is taken. One that is missing is left to whoever needs it.
class LateLibraries {
 public:
  LateLibraries(std::initializer_list<const wchar_t*> names);
};

/// One function of a system library, looked up when it is made. Usage:
///   const SystemFunction<decltype(::RmEndSession)> end(L"rstrtmgr.dll", "RmEndSession");
template <typename Signature>
class SystemFunction {
 public:
  SystemFunction(const wchar_t* library, const char* name) {
    if (HMODULE module = LoadSystemLibrary(library)) {
      // The platform hands every function out as one type.
      function_ =
          reinterpret_cast<Pointer>(reinterpret_cast<void (*)()>(::GetProcAddress(module, name)));
    }
    if (function_ == nullptr) error_ = ::GetLastError();
  }

  /// The function itself, so that this object is called and tested like a pointer to it. Null when
  /// there is none.
  operator std::add_pointer_t<Signature>() const { return function_; }
  /// Why there is no function.
  [[nodiscard]] DWORD error() const { return error_; }

 private:
  using Pointer = std::add_pointer_t<Signature>;
  Pointer function_ = nullptr;
  DWORD error_ = 0;
};

}  // namespace zul
