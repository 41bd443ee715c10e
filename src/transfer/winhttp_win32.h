#pragma once

// WinHTTP, and one request over it, from the session to the last byte of the body. The package
// download and the HTTP client share this file. Inside the room only.

#include <windows.h>

#include <winhttp.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "core/handle_win32.h"
#include "core/system_library_win32.h"
#include "transfer/download_transport.h"

namespace zul {

/// The functions of WinHTTP that the updater calls, loaded from the system folder at run time: a
/// winhttp.dll beside the executable would be loaded first if the executable imported it. A
/// function that the system does not have is null.
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

/// The library, loaded on first use. Null when it or one of the functions is missing; GetLastError
/// then has the reason.
[[nodiscard]] const WinHttpApi* WinHttp();

struct InternetHandleTraits {
  using Type = HINTERNET;
  static HINTERNET Invalid() { return nullptr; }
  // Only a loaded library opens handles, so WinHttp() is not null here.
  static void Close(HINTERNET handle) { WinHttp()->WinHttpCloseHandle(handle); }
};
using UniqueInternetHandle = UniqueHandle<InternetHandleTraits>;

/// Follows the redirects that WinHTTP reports while it sends one request. The last URL is used
/// where the system does not report the final URL.
class RedirectLog {
 public:
  /// Sets the URL that the first redirect is relative to.
  void Begin(std::string url) { url_ = std::move(url); }

  /// The URL of the last redirect, UTF-8; empty when there was none.
  [[nodiscard]] std::string LastUrl() const { return redirected_ ? url_ : std::string(); }

  /// The status callback. WinHTTP calls it on the thread that sends; `context` is the RedirectLog.
  static void CALLBACK OnStatus(HINTERNET handle, DWORD_PTR context, DWORD status,
                                LPVOID information, DWORD size) noexcept;

 private:
  void Follow(const wchar_t* location);

  std::string url_;
  bool redirected_ = false;
};

/// One request and its response. Used once and in the order of the declarations. Every step blocks.
/// A step that fails returns false and stores the platform's error in `*code`.
class WinHttpExchange {
 public:
  WinHttpExchange() = default;
  ~WinHttpExchange() { Close(); }
  // WinHTTP holds the address of `redirects_`.
  WinHttpExchange(const WinHttpExchange&) = delete;
  WinHttpExchange& operator=(const WinHttpExchange&) = delete;

  [[nodiscard]] bool OpenSession(const std::wstring& user_agent, std::uint32_t* code);
  void SetTimeouts(const TransportTimeouts& timeouts);
  [[nodiscard]] bool Connect(const std::wstring& host, std::uint16_t port, std::uint32_t* code);
  [[nodiscard]] bool OpenRequest(const std::wstring& method, const std::wstring& path_and_query,
                                 bool secure, std::uint32_t* code);
  /// A response of 3xx is then returned to the caller.
  [[nodiscard]] bool DisableRedirects(std::uint32_t* code);
  /// Sends `headers` (lines that end in CR LF; may be empty) and `body`, and waits for the headers
  /// of the response. Follows redirects unless they are disabled, but never from https to http.
  [[nodiscard]] bool SendAndReceive(std::wstring_view headers, std::string_view body,
                                    std::uint32_t* code);

  [[nodiscard]] bool QueryStatus(std::int32_t* status, std::uint32_t* code);
  /// The text of the Content-Length header; empty when there is none.
  [[nodiscard]] std::string ContentLengthText();
  /// The URL that the response came from, UTF-8; empty when no redirect is known.
  [[nodiscard]] std::string EffectiveUrl();

  /// How many bytes of the body one read can take now; 0 at the end of the body.
  [[nodiscard]] bool QueryDataAvailable(std::size_t* available, std::uint32_t* code);
  /// Reads at most `size` bytes; `*read` is 0 at the end of the body.
  [[nodiscard]] bool ReadData(void* buffer, std::size_t size, std::size_t* read,
                              std::uint32_t* code);

  /// Closes the request, the connection and the session, in this order. A second call does nothing.
  void Close();

 private:
  const WinHttpApi* const api_ = WinHttp();
  std::wstring authority_;
  RedirectLog redirects_;  // outlives the request that reports to it
  UniqueInternetHandle session_;
  UniqueInternetHandle connection_;
  UniqueInternetHandle request_;
};

}  // namespace zul
