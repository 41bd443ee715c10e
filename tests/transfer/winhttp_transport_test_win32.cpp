// The real transport against a small server on loopback. The rules of a download demand https, so
// the transport is driven by hand here; whole downloads over TLS are the end-to-end runs' matter.

#include <winsock2.h>

#include <gtest/gtest.h>
#include <ws2tcpip.h>

#include <chrono>
#include <map>
#include <thread>

#include "core/text.h"
#include "tests/transfer/trace_reader.h"
#include "transfer/download.h"
#include "transfer/download_transport.h"

namespace zul {
namespace {

/// Keeps Winsock loaded, and one listening socket on a free port of 127.0.0.1.
class Listener {
 public:
  Listener() {
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
    port_ = ::ntohs(address.sin_port);
  }
  ~Listener() {
    Close();
    ::WSACleanup();
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  void Close() {
    if (socket_ != INVALID_SOCKET) ::closesocket(socket_);
    socket_ = INVALID_SOCKET;
  }
  [[nodiscard]] SOCKET socket() const { return socket_; }
  [[nodiscard]] std::uint16_t port() const { return port_; }

 private:
  SOCKET socket_ = INVALID_SOCKET;
  std::uint16_t port_ = 0;
};

/// Answers `count` requests, each on a connection of its own, with the response of its path. A path
/// without one gets silence for a second.
class Server {
 public:
  Server(std::map<std::string, std::string> responses, int count)
      : responses_(std::move(responses)), thread_([this, count] {
          for (int i = 0; i < count; ++i) Serve();
        }) {}
  ~Server() { thread_.join(); }
  [[nodiscard]] std::uint16_t port() const { return listener_.port(); }

 private:
  void Serve() {
    const SOCKET client = ::accept(listener_.socket(), nullptr, nullptr);
    std::string request;
    char buffer[2048];
    while (request.find("\r\n\r\n") == std::string::npos) {
      const int taken = ::recv(client, buffer, sizeof(buffer), 0);
      if (taken <= 0) break;
      request.append(buffer, static_cast<std::size_t>(taken));
    }
    const std::size_t start = request.find(' ') + 1;
    const auto response = responses_.find(request.substr(start, request.find(' ', start) - start));
    if (response == responses_.end()) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
    } else {
      ::send(client, response->second.data(), static_cast<int>(response->second.size()), 0);
      ::shutdown(client, SD_SEND);
    }
    ::closesocket(client);
  }

  Listener listener_;
  std::map<std::string, std::string> responses_;
  std::thread thread_;
};

constexpr TransportTimeouts kTimeouts = {2000, 2000, 2000, 300};

bool Send(DownloadTransport& transport, std::uint16_t port, const wchar_t* path,
          std::uint32_t& code) {
  if (!transport.OpenSession("zul_updater/1.0", code)) return false;
  transport.SetTimeouts(kTimeouts);
  return transport.Connect(L"127.0.0.1", port, code) && transport.OpenRequest(path, false, code) &&
         transport.SendAndReceive(code);
}

TEST(WinHttpTransport, ReadsAResponseAndFollowsARelativeRedirect) {
  const std::string body(100000, 'x');
  const Server server(
      {{"/first",
        "HTTP/1.1 302 Found\r\nLocation: /second?t=1\r\nContent-Length: 0\r\nConnection: close"
        "\r\n\r\n"},
       {"/second?t=1",
        "HTTP/1.1 206 Partial\r\nContent-Length: 100000\r\nConnection: close\r\n\r\n" + body}},
      2);
  const auto transport = CreateWinHttpTransport();
  std::uint32_t code = 0;
  ASSERT_TRUE(Send(*transport, server.port(), L"/first", code)) << code;
  std::int32_t status = 0;
  EXPECT_TRUE(transport->QueryStatus(status, code));
  EXPECT_EQ(status, 206);
  EXPECT_EQ(transport->ContentLengthText(), "100000");
  EXPECT_EQ(transport->EffectiveUrl(),
            "http://127.0.0.1:" + std::to_string(server.port()) + "/second?t=1");
  std::string received;
  std::size_t available = 0;
  while (transport->QueryDataAvailable(available, code) && available != 0) {
    std::string chunk(available, '\0');
    std::size_t read = 0;
    ASSERT_TRUE(transport->ReadData(chunk.data(), chunk.size(), read, code)) << code;
    received.append(chunk, 0, read);
  }
  EXPECT_EQ(code, 0U);
  EXPECT_EQ(received, body);
  transport->Close();
  transport->Close();
}

TEST(WinHttpTransport, DoesNotWaitForeverForHeaders) {
  const Server server({}, 1);
  const auto transport = CreateWinHttpTransport();
  std::uint32_t code = 0;
  EXPECT_FALSE(Send(*transport, server.port(), L"/silence", code));
  EXPECT_TRUE(code == kTransportTimeoutCode || code == WSAETIMEDOUT) << code;
}

TEST(DownloadPackage, ReportsARefusedConnectionOverWinHttp) {
  const test::TraceInTempFolder trace;
  Listener listener;
  listener.Close();  // its port was free a moment ago and refuses now
  const std::string url = "https://127.0.0.1:" + std::to_string(listener.port()) + "/p.zip";
  DownloadResult result;
  std::string error;
  EXPECT_FALSE(DownloadPackage(url + "?token=secret", trace.folder() / "p.zip", "primary", result,
                               &error, nullptr, {}, {}));
  EXPECT_EQ(result.failure_kind, DownloadFailureKind::kTransport);
  EXPECT_EQ(result.winhttp_error_code, 12029U);  // ERROR_WINHTTP_CANNOT_CONNECT
  EXPECT_EQ(error, "WinHTTP send/receive failed (code=12029)");
  EXPECT_EQ(trace.Events().back(),
            "download_fail failure_kind=transport origin_role=primary "
            "reason=winhttp_send_receive url=" +
                url + " winhttp_error_code=12029");
  EXPECT_FALSE(test::Exists(trace.folder() / "p.zip"));
}

}  // namespace
}  // namespace zul
