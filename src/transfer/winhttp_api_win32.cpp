#include "transfer/winhttp_api_win32.h"

namespace zul {

namespace {

bool IsComplete(const WinHttpApi& api) {
  return api.WinHttpCloseHandle && api.WinHttpConnect && api.WinHttpCrackUrl && api.WinHttpOpen &&
         api.WinHttpOpenRequest && api.WinHttpQueryDataAvailable && api.WinHttpQueryHeaders &&
         api.WinHttpQueryOption && api.WinHttpReadData && api.WinHttpReceiveResponse &&
         api.WinHttpSendRequest && api.WinHttpSetOption && api.WinHttpSetStatusCallback &&
         api.WinHttpSetTimeouts;
}

}  // namespace

const WinHttpApi* WinHttp() {
  static const LateLibraries for_secure_connections{L"crypt32.dll", L"secur32.dll"};
  static const WinHttpApi api;
  if (IsComplete(api)) return &api;
  ::SetLastError(api.WinHttpOpen.error() != 0 ? api.WinHttpOpen.error() : ERROR_PROC_NOT_FOUND);
  return nullptr;
}

}  // namespace zul
