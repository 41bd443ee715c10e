#include "transfer/read_ahead_transport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/transfer/scripted_transport.h"

namespace zul {
namespace {

/// The body as a caller reads it, `limit` bytes at a time, and a mark for how it ends.
std::string ReadAll(DownloadTransport& transport, std::size_t limit) {
  std::uint32_t code = 0;
  EXPECT_TRUE(transport.SendAndReceive(&code));
  for (std::string body;;) {
    std::size_t available = 0;
    std::size_t read = 0;
    if (!transport.QueryDataAvailable(&available, &code)) return body + "?" + std::to_string(code);
    std::string piece(std::min(available, limit), '\0');
    if (available == 0) return body + ".";
    if (!transport.ReadData(piece.data(), piece.size(), &read, &code)) {
      EXPECT_FALSE(transport.ReadData(piece.data(), piece.size(), &read, &code));
      return body + "!" + std::to_string(code);
    }
    body += piece.substr(0, read);
  }
}

TEST(ReadAheadTransport, ReturnsTheBodyAndCallsKeepAliveOnTheCallersThread) {
  std::string many;
  std::vector<std::string> pieces;  // more than kMaxPieces
  for (unsigned i = 0; i < 500; ++i) many += pieces.emplace_back(1 + i, static_cast<char>(i));
  const struct {
    std::vector<std::string> chunks;
    std::string expected;
    const char* failing_step = "";
    std::size_t limit = 7;
  } cases[] = {{{}, "."},
               {{"one", "two"}, "onetwo.", "", 2},
               {{"one"}, "?12002", "QueryDataAvailable"},
               {{"one"}, "!12002", "ReadData"},
               {pieces, many + "."},
               {{5, std::string(600'000, 'b')}, std::string(3'000'000, 'b') + ".", "", 1 << 20}};
  for (const auto& c : cases) {
    for (const std::string blocking_step : {"none", "SendAndReceive", "QueryDataAvailable"}) {
      SCOPED_TRACE(std::to_string(&c - cases) + blocking_step);
      test::ScriptedTransport inner;
      std::atomic<bool> let_go = blocking_step == "none";
      inner.before = [&](const std::string& step) {
        while (step == blocking_step && !let_go) std::this_thread::yield();
      };
      inner.chunks = c.chunks;
      inner.failing_step = c.failing_step;
      inner.failure_code = 12002;
      const auto caller = std::this_thread::get_id();
      int calls = 0;
      ReadAheadTransport transport(inner, [&] {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        if (++calls == 3) let_go = true;  // the blocked step waits for this
      });
      EXPECT_TRUE(ReadAll(transport, c.limit) == c.expected);
      EXPECT_TRUE(let_go);
      transport.Close();
    }
  }
}

TEST(ReadAheadTransport, ReportsAnExceptionOfItsThreadAsAFailure) {
  for (const std::string step : {"QueryDataAvailable", "ReadData"}) {
    test::ScriptedTransport inner;
    inner.chunks = {"one"};
    inner.before = [&](const std::string& reached) {
      if (reached == step) throw std::bad_alloc();
    };
    ReadAheadTransport transport(inner, [] {});
    EXPECT_EQ(ReadAll(transport, 7), "?8") << step;
  }
}

}  // namespace
}  // namespace zul
