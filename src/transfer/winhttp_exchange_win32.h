#pragma once

// One request over WinHTTP, from the session to the last byte of the body: what the package
// download and the HTTP client have in common. Inside the room only.

#include <windows.h>

#include <winhttp.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "core/handle_win32.h"
#include "transfer/download_transport.h"
#include "transfer/winhttp_api_win32.h"

namespace zul {

struct InternetHandleTraits {
  using Type = HINTERNET;
  static HINTERNET Invalid() { return nullptr; }
  // An open handle came from the library, so the library is there.
  static void Close(HINTERNET handle) { WinHttp()->WinHttpCloseHandle(handle); }
};
using UniqueInternetHandle = UniqueHandle<InternetHandleTraits>;

/// The redirects of one request, told by WinHTTP while it sends. The last one stands in for the
/// final URL where the system cannot name it.
class RedirectLog {
 public:
  void Begin(std::string url) { url_ = std::move(url); }

  /// Empty when there was no redirect.
  [[nodiscard]] std::string LastUrl() const { return redirected_ ? url_ : std::string(); }

  /// WinHTTP calls this on the thread that sends; `context` is the log.
  static void CALLBACK OnStatus(HINTERNET handle, DWORD_PTR context, DWORD status,
                                LPVOID information, DWORD size) noexcept;

 private:
  void Follow(const wchar_t* location);

  std::string url_;
  bool redirected_ = false;
};

/// Used once and in the order of the declarations. Every step blocks. A step that fails returns
/// false with the platform's error in `code`.
class WinHttpExchange {
 public:
  WinHttpExchange() = default;
  ~WinHttpExchange() { Close(); }
  // WinHTTP holds the address of the redirect log.
  WinHttpExchange(const WinHttpExchange&) = delete;
  WinHttpExchange& operator=(const WinHttpExchange&) = delete;

  [[nodiscard]] bool OpenSession(const std::wstring& user_agent, std::uint32_t& code);
  void SetTimeouts(const TransportTimeouts& timeouts);
  [[nodiscard]] bool Connect(const std::wstring& host, std::uint16_t port, std::uint32_t& code);
  [[nodiscard]] bool OpenRequest(const std::wstring& method, const std::wstring& path_and_query,
                                 bool secure, std::uint32_t& code);
  /// A 3xx then comes back as it stands.
  [[nodiscard]] bool DisableRedirects(std::uint32_t& code);
  /// Sends the lines of `headers` (each with its CR LF, or none) and `body`, and waits for the
  /// headers of the response. Redirects are followed unless disabled, but never from https to
  /// http.
  [[nodiscard]] bool SendAndReceive(std::wstring_view headers, std::string_view body,
                                    std::uint32_t& code);

  [[nodiscard]] bool QueryStatus(std::int32_t& status, std::uint32_t& code);
  /// The text of the Content-Length header; empty when there is none.
  [[nodiscard]] std::string ContentLengthText();
  /// The URL that the response came from, UTF-8; empty when it is not known to differ from the
  /// requested one.
  [[nodiscard]] std::string EffectiveUrl();

  /// How many bytes of the body one read can take now; 0 at its end.
  [[nodiscard]] bool QueryDataAvailable(std::size_t& available, std::uint32_t& code);
  /// Reads at most `size` bytes; `read` is 0 at the end of the body.
  [[nodiscard]] bool ReadData(void* buffer, std::size_t size, std::size_t& read,
                              std::uint32_t& code);

  /// Closes request, connection and session, in that order, those that are open. May be repeated.
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
