// What an HTTP request is refused for before a session exists, and what the platform gets to see.

#include "transfer/net/http_call.h"

#include <gtest/gtest.h>

namespace zul::net {
namespace {

using namespace std::string_literals;

TEST(RenderHttpHeaders, LetsNoHeaderBecomeTwo) {
  struct Row {
    std::vector<HttpHeader> headers;
    std::optional<std::wstring> lines;
  };
  const Row rows[] = {
      {{}, L""},
      {{{"Content-Type", "application/json"}, {"X-Empty", ""}, {"X-Colon", "a: b"}},
       L"Content-Type: application/json\r\nX-Empty: \r\nX-Colon: a: b\r\n"},
      {{{"X-Name", "\xC5\xBElu\xC5\xA5"}}, L"X-Name: \u017Elu\u0165\r\n"},
      {{{"", "x"}}, {}},
      {{{"A:", "x"}}, {}},
      {{{"A\n", "x"}}, {}},
      {{{"A\rB", "x"}}, {}},
      {{{"A", "x\r\nB: y"}}, {}},
      {{{"A", "x"}, {"B", "\n"}}, {}},
      {{{"A", "x\r"}}, {}},
      {{{"\xFF", "x"}}, {}},
      {{{"A", "\xC5"}}, {}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(RenderHttpHeaders(row.headers), row.lines)
        << (row.headers.empty() ? "none" : row.headers[0].first + "/" + row.headers[0].second);
  }
}

TEST(PrepareHttpCall, RefusesInOrder) {
  struct Row {
    const char* error;
    std::string url;
    std::vector<HttpHeader> headers;
    std::string user_agent;
  };
  const Row rows[] = {
      {"", "https://host/p", {}, ""},
      {"URL must use HTTPS", "http://host/p", {{"", ""}}, "a\nb"},
      {"URL must include http or https scheme", "", {}, ""},
      {"URL host is empty or contains user info", "https://u@host/", {}, ""},
      {"Invalid HTTP header", "https://host/\xFF", {{"A", "\n"}}, "\xFF"},
      {"Invalid HTTP header", "https://host/", {}, "agent\r\nX: y"},
      {"Invalid HTTP request encoding", "https://host/\xFF", {}, ""},
      {"Invalid HTTP request encoding", "https://[\xFF]/", {}, ""},
      {"Invalid HTTP request encoding", "https://host/a\r\nX:%20y", {}, ""},
      {"Invalid HTTP request encoding", "https://host/a\0b"s, {}, ""},
      {"Invalid HTTP request encoding", "https://host/", {}, "\xFF"},
  };
  for (const Row& row : rows) {
    HttpRequest request;
    request.url = row.url;
    request.headers = row.headers;
    request.user_agent = row.user_agent;
    EXPECT_EQ(PrepareHttpCall(request).error, row.error) << row.url;
  }
}

TEST(PrepareHttpCall, ConvertsAndFillsInDefaults) {
  HttpRequest request;
  request.url = "https://Host.Example:8443?a=\xC5\xBE#part";
  request.headers = {{"A", "b"}};
  HttpCall call = PrepareHttpCall(request);
  EXPECT_EQ(call.host, L"host.example");
  EXPECT_EQ(call.port, 8443);
  EXPECT_EQ(call.path_and_query, L"/?a=\u017E");
  EXPECT_EQ(call.headers, L"A: b\r\n");
  EXPECT_EQ(call.user_agent, L"qorva_http/1.0");

  const wchar_t* const words[] = {L"GET", L"POST", L"PUT", L"DELETE", L"PATCH", L"HEAD", L"GET"};
  for (int method = 0; method < 7; ++method) {
    request.method = static_cast<HttpMethod>(method);
    EXPECT_EQ(PrepareHttpCall(request).method, words[method]);
  }

  const auto waits = [&request](std::int32_t connect, std::int32_t send, std::int32_t receive) {
    request.resolve_and_connect_timeout_ms = connect;
    request.send_timeout_ms = send;
    request.receive_timeout_ms = receive;
    const TransportTimeouts timeouts = PrepareHttpCall(request).timeouts;
    EXPECT_EQ(timeouts.resolve_ms, timeouts.connect_ms);
    return std::vector<std::uint32_t>{timeouts.connect_ms, timeouts.send_ms, timeouts.receive_ms};
  };
  EXPECT_EQ(waits(0, -1, 0), (std::vector<std::uint32_t>{5000, 10000, 15000}));
  EXPECT_EQ(waits(1, 2, 3), (std::vector<std::uint32_t>{1, 2, 3}));
}

TEST(SetHttpFailure, ToldByThePlatformsNumber) {
  for (const std::uint32_t code :
       {12002u, 12029u, 12037u, 12038u, 12045u, 12057u, 12157u, 12175u}) {
    HttpResponse response;
    SetHttpFailure(response, "message", code);
    EXPECT_EQ(response.error, "message");
    EXPECT_EQ(response.platform_error, static_cast<std::int32_t>(code));
    EXPECT_EQ(response.timed_out, code == 12002);
    EXPECT_EQ(response.tls_error, code != 12002 && code != 12029 && code != 12157);
  }
}

}  // namespace
}  // namespace zul::net
