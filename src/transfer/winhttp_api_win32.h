#pragma once

// WinHTTP, taken from the system folder at run time: linked in the ordinary way, a winhttp.dll
// beside the executable would be loaded before any code of ours could refuse it.

#include <windows.h>

#include <winhttp.h>

#include "core/system_library_win32.h"

namespace zul {

/// The calls that the updater makes, named as the platform's documentation has them. A system
/// without the library leaves them null.
struct WinHttpApi {
  static constexpr const wchar_t* kLibrary = L"winhttp.dll";

// NOLINTBEGIN(bugprone-macro-parentheses): the argument is a name
#define ZUL_WINHTTP_CALL(name)            \
  SystemFunction<decltype(::name)> name { \
    kLibrary, #name                       \
  }
  // NOLINTEND(bugprone-macro-parentheses)
  ZUL_WINHTTP_CALL(WinHttpCloseHandle);
  ZUL_WINHTTP_CALL(WinHttpConnect);
  ZUL_WINHTTP_CALL(WinHttpCrackUrl);
  ZUL_WINHTTP_CALL(WinHttpOpen);
  ZUL_WINHTTP_CALL(WinHttpOpenRequest);
  ZUL_WINHTTP_CALL(WinHttpQueryDataAvailable);
  ZUL_WINHTTP_CALL(WinHttpQueryHeaders);
  ZUL_WINHTTP_CALL(WinHttpQueryOption);
  ZUL_WINHTTP_CALL(WinHttpReadData);
  ZUL_WINHTTP_CALL(WinHttpReceiveResponse);
  ZUL_WINHTTP_CALL(WinHttpSendRequest);
  ZUL_WINHTTP_CALL(WinHttpSetOption);
  ZUL_WINHTTP_CALL(WinHttpSetStatusCallback);
  ZUL_WINHTTP_CALL(WinHttpSetTimeouts);
#undef ZUL_WINHTTP_CALL
};

/// The library, loaded on first use; null when the system has none or an incomplete one, with the
/// reason in GetLastError.
[[nodiscard]] const WinHttpApi* WinHttp();

}  // namespace zul
