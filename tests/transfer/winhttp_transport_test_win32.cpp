// The real transport where no server is needed. Whole downloads over TLS are the end-to-end runs'
// matter.

#include <winsock2.h>

#include <gtest/gtest.h>

#include "transfer/download_transport.h"
#include "transfer/net/http_client.h"

namespace zul {
namespace {

/// A port of 127.0.0.1 where connections are made and nobody says a word; refused after `Close`.
class SilentPort {
 public:
  SilentPort() {
    WSADATA data;
    EXPECT_EQ(::WSAStartup(MAKEWORD(2, 2), &data), 0);
    socket_ = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    int size = sizeof(address);
    EXPECT_EQ(::bind(socket_, generic, size), 0);
    EXPECT_EQ(::listen(socket_, 8), 0);
    EXPECT_EQ(::getsockname(socket_, generic, &size), 0);
    number_ = ::ntohs(address.sin_port);
  }
  ~SilentPort() { ::WSACleanup(); }  // closes the socket as well
  SilentPort(const SilentPort&) = delete;
  SilentPort& operator=(const SilentPort&) = delete;

  void Close() { EXPECT_EQ(::closesocket(socket_), 0); }
  [[nodiscard]] std::uint16_t number() const { return number_; }

 private:
  SOCKET socket_ = INVALID_SOCKET;
  std::uint16_t number_ = 0;
};

TEST(WinHttpTransport, DoesNotWaitForeverForHeaders) {
  const SilentPort port;
  const auto transport = CreateWinHttpTransport();
  std::uint32_t code = 0;
  ASSERT_TRUE(transport->OpenSession("zul_updater/1.0", code));
  transport->SetTimeouts({2000, 2000, 2000, 300});
  ASSERT_TRUE(transport->Connect(L"127.0.0.1", port.number(), code));
  ASSERT_TRUE(transport->OpenRequest(L"/silence", false, code));
  EXPECT_FALSE(transport->SendAndReceive(code));
  EXPECT_TRUE(code == kTransportTimeoutCode || code == WSAETIMEDOUT) << code;
  EXPECT_EQ(transport->EffectiveUrl(), "");
}

TEST(HttpClient, SaysWhyNothingCameBack) {
  net::HttpRequest request;
  request.method = net::HttpMethod::kPost;
  request.headers = {{"Content-Type", "application/json"}};
  request.body = "{}";
  request.receive_timeout_ms = 300;
  request.url = "http://127.0.0.1/";
  EXPECT_EQ(net::SendHttpRequest(request).error, "URL must use HTTPS");

  SilentPort port;
  request.url = "https://127.0.0.1:" + std::to_string(port.number()) + "/report";
  const net::HttpResponse silent = net::SendHttpRequest(request);  // bounded by the time-out
  EXPECT_EQ(silent.error, "WinHTTP send/receive failed");
  EXPECT_EQ(silent.timed_out, silent.platform_error == 12002);

  port.Close();
  const net::HttpResponse refused = net::SendHttpRequest(request);
  EXPECT_EQ(refused.error, "WinHTTP send/receive failed");
  EXPECT_EQ(refused.platform_error, 12029);  // cannot connect
  EXPECT_FALSE(refused.timed_out || refused.tls_error || refused.response_too_large);
  EXPECT_EQ(refused.status, 0);
  EXPECT_EQ(refused.effective_url + refused.body, "");
}

}  // namespace
}  // namespace zul
