// What an HTTP request is refused for before a session exists. What is sent otherwise, the
// end-to-end runs of the report upload show.

#include "transfer/net/http_call.h"

#include <gtest/gtest.h>

namespace zul::net {
namespace {

TEST(PrepareHttpCall, LetsNothingThroughBetweenTheLinesOfTheHead) {
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

}  // namespace
}  // namespace zul::net
