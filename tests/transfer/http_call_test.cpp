// What an HTTP request is refused for before a session exists, and what the platform gets to see.

#include "transfer/net/http_call.h"

#include <gtest/gtest.h>

#include <array>
#include <tuple>

namespace zul::net {
namespace {

using namespace std::string_literals;

TEST(RenderHttpHeaders, LetsNoHeaderBecomeTwo) {
  const struct {
    std::vector<HttpHeader> headers;
    std::optional<std::wstring> lines;
  } rows[] = {
      {{}, L""},
      {{{"Content-Type", "application/json"}, {"X-Empty", ""}, {"X-Colon", "a: b"}},
       L"Content-Type: application/json\r\nX-Empty: \r\nX-Colon: a: b\r\n"},
      {{{"X-Name", "\xC5\xBElu\xC5\xA5"}}, L"X-Name: \u017Elu\u0165\r\n"},
      {{{"A", "x"}, {"B", "\n"}}, {}},
  };
  for (const auto& row : rows) EXPECT_EQ(RenderHttpHeaders(row.headers), row.lines);
  for (const HttpHeader& header : {HttpHeader{"", "x"},
                                   {"A:", "x"},
                                   {"A\n", "x"},
                                   {"A\rB", "x"},
                                   {"A", "x\r\nB: y"},
                                   {"A", "x\r"},
                                   {"\xFF", "x"},
                                   {"A", "\xC5"}}) {
    EXPECT_EQ(RenderHttpHeaders({header}), std::nullopt) << header.first << "/" << header.second;
  }
}

TEST(PrepareHttpCall, RefusesInOrder) {
  const struct {
    std::string error, url;
    std::vector<HttpHeader> headers;
    std::string user_agent;
  } rows[] = {
      {"", "https://host/p", {}, ""},
      {"URL must use HTTPS", "http://host/p", {{"", ""}}, "a\nb"},
      {"Invalid HTTP header", "https://host/\xFF", {{"A", "\n"}}, "\xFF"},
      {"Invalid HTTP header", "https://host/", {}, "agent\r\nX: y"},
      {"Invalid HTTP request encoding", "https://host/\xFF", {}, ""},
      {"Invalid HTTP request encoding", "https://[\xFF]/", {}, ""},
      {"Invalid HTTP request encoding", "https://host/a\r\nX:%20y", {}, ""},
      {"Invalid HTTP request encoding", "https://host/a\0b"s, {}, ""},
      {"Invalid HTTP request encoding", "https://host/", {}, "\xFF"},
  };
  for (const auto& row : rows) {
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
  const HttpCall call = PrepareHttpCall(request);
  EXPECT_EQ(call.host, L"host.example");
  EXPECT_EQ(call.port, 8443);
  EXPECT_EQ(call.path_and_query, L"/?a=\u017E");
  EXPECT_EQ(call.headers, L"A: b\r\n");
  EXPECT_EQ(call.user_agent, L"qorva_http/1.0");

  int method = 0;
  for (const wchar_t* word : {L"GET", L"POST", L"PUT", L"DELETE", L"PATCH", L"HEAD", L"GET"}) {
    request.method = static_cast<HttpMethod>(method++);
    EXPECT_EQ(PrepareHttpCall(request).method, word);
  }

  using Waits = std::array<std::uint32_t, 3>;
  for (const auto& [connect, send, receive, expected] :
       {std::tuple{0, -1, 0, Waits{5000, 10000, 15000}}, {1, 2, 3, Waits{1, 2, 3}}}) {
    request.resolve_and_connect_timeout_ms = connect;
    request.send_timeout_ms = send;
    request.receive_timeout_ms = receive;
    const TransportTimeouts waits = PrepareHttpCall(request).timeouts;
    EXPECT_EQ((Waits{waits.connect_ms, waits.send_ms, waits.receive_ms}), expected);
    EXPECT_EQ(waits.resolve_ms, waits.connect_ms);
  }
}

TEST(SetHttpFailure, ToldByThePlatformsNumber) {
  for (const int code : {12002, 12029, 12037, 12038, 12045, 12057, 12157, 12175}) {
    HttpResponse response;
    SetHttpFailure(response, "message", static_cast<std::uint32_t>(code));
    EXPECT_EQ(response.error, "message");
    EXPECT_EQ(response.platform_error, code);
    EXPECT_EQ(response.timed_out, code == 12002);
    EXPECT_EQ(response.tls_error, code != 12002 && code != 12029 && code != 12157);
  }
}

}  // namespace
}  // namespace zul::net
