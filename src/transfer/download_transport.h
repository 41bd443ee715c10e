#pragma once

// What a package download needs of the platform's HTTP client, and no more: one session, one
// connection, one GET. The rules of a download (download.cpp) use only this interface, so that a
// test can run them over a scripted transport.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zul {

/// ERROR_WINHTTP_TIMEOUT of winhttp.h.
inline constexpr std::uint32_t kTransportTimeoutCode = 12002;

struct TransportTimeouts {
  std::uint32_t resolve_ms;
  std::uint32_t connect_ms;
  std::uint32_t send_ms;
  std::uint32_t receive_ms;  ///< for the headers of the response and for each read
};

/// The network of one download, used once and in the order of the declarations. Every step blocks.
/// A step that fails returns false and stores the platform's error, which may be 0, in `*code`.
class DownloadTransport {
 public:
  virtual ~DownloadTransport() = default;

  [[nodiscard]] virtual bool OpenSession(std::string_view user_agent, std::uint32_t* code) = 0;
  virtual void SetTimeouts(const TransportTimeouts& timeouts) = 0;
  [[nodiscard]] virtual bool Connect(const std::wstring& host, std::uint16_t port,
                                     std::uint32_t* code) = 0;
  [[nodiscard]] virtual bool OpenRequest(const std::wstring& path_and_query, bool secure,
                                         std::uint32_t* code) = 0;
  /// Sends the GET and waits for the headers of the response. Follows redirects, but never from
  /// https to http.
  [[nodiscard]] virtual bool SendAndReceive(std::uint32_t* code) = 0;

  [[nodiscard]] virtual bool QueryStatus(std::int32_t* status, std::uint32_t* code) = 0;
  /// The text of the Content-Length header; empty when there is none.
  [[nodiscard]] virtual std::string ContentLengthText() = 0;
  /// The URL that the response came from, UTF-8; empty when no redirect is known.
  [[nodiscard]] virtual std::string EffectiveUrl() = 0;

  /// How many bytes of the body one read can take now; 0 at the end of the body.
  [[nodiscard]] virtual bool QueryDataAvailable(std::size_t* available, std::uint32_t* code) = 0;
  /// Reads at most `size` bytes; `*read` is 0 at the end of the body.
  [[nodiscard]] virtual bool ReadData(void* buffer, std::size_t size, std::size_t* read,
                                      std::uint32_t* code) = 0;

  /// Closes the request, the connection and the session, in this order. A second call does nothing.
  virtual void Close() = 0;
};

/// The transport over WinHTTP. Windows only.
[[nodiscard]] std::unique_ptr<DownloadTransport> CreateWinHttpTransport();

}  // namespace zul
