// Requests that are refused before a session exists, and the record of a failure. The end-to-end
// runs of the report upload test what is sent.

#include "transfer/net/http_call.h"

#include <gtest/gtest.h>

namespace zul::net {
namespace {

TEST(PrepareHttpCall, RefusesTextThatAddsALineToTheHead) {
  const std::string url = "https://host/";
  const struct {
    std::string error, url;
    HttpHeader header = {"A", "b: c"};
    std::string user_agent = {};
  } rows[] = {
      {"", url},
      {"URL must use HTTPS", "http://host/p", {"", ""}, "a\nb"},
      {"Invalid HTTP header", url, {"", "x"}},
      {"Invalid HTTP header", url, {"A:", "x"}},
      {"Invalid HTTP header", url, {"A\rB", "x"}},
      {"Invalid HTTP header", url, {"A", "x\r\nB: y"}},
      {"Invalid HTTP header", url, {"A", "\xC5"}},
      {"Invalid HTTP header", url, {"A", "b"}, "agent\r\nX: y"},
      {"Invalid HTTP request encoding", "https://host/\xFF"},
      {"Invalid HTTP request encoding", "https://host/a\r\nX:%20y"},
      {"Invalid HTTP request encoding", url, {"A", "b"}, "\xFF"},
  };
  for (const auto& row : rows) {
    HttpRequest request;
    request.url = row.url;
    request.headers = {row.header};
    request.user_agent = row.user_agent;
    EXPECT_EQ(PrepareHttpCall(request).error, row.error)
        << row.url << " " << row.header.first << ": " << row.header.second;
  }
}

TEST(SetHttpFailure, ClassifiesThePlatformsCode) {
  for (const int code : {12002, 12029, 12037, 12038, 12045, 12057, 12157, 12175}) {
    HttpResponse response;
    SetHttpFailure(&response, "message", static_cast<std::uint32_t>(code));
    EXPECT_EQ(response.error + std::to_string(response.platform_error),
              "message" + std::to_string(code));
    EXPECT_EQ(response.timed_out, code == 12002);
    EXPECT_EQ(response.tls_error, code != 12002 && code != 12029 && code != 12157);
  }
}

}  // namespace
}  // namespace zul::net
