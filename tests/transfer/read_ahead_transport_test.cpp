#include "transfer/read_ahead_transport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/transfer/scripted_transport.h"

namespace zul {
namespace {

/// What a caller of the transport gets of a body, reading `limit` bytes at a time, and where it
/// ends.
std::string ReadAll(DownloadTransport& transport, std::size_t limit) {
  std::string body;
  for (;;) {
    std::size_t available = 0;
    std::size_t read = 0;
    std::uint32_t code = 0;
    if (!transport.QueryDataAvailable(available, code)) return body + "?" + std::to_string(code);
    if (available == 0) return body + ".";
    std::string piece(std::min(available, limit), '\0');
    if (!transport.ReadData(piece.data(), piece.size(), read, code)) {
      return body + "!" + std::to_string(code);
    }
    if (read == 0) return body + ",";
    body += piece.substr(0, read);
  }
}

TEST(ReadAheadTransport, HandsOutWhatTheOtherOneReads) {
  std::vector<std::string> many;  // more than it holds at once
  for (int i = 0; i < 500; ++i) many.push_back(std::string(1 + static_cast<unsigned>(i), 'a'));
  const std::vector<std::string> large(5, std::string(600'000, 'b'));
  const struct {
    std::vector<std::string> chunks;
    const char* failing_step = "";
    bool ends_in_empty_read = false;
  } cases[] = {{{}},
               {{"one"}},
               {{"one", "two"}, "", true},
               {{"one", "two"}, "QueryDataAvailable"},
               {{"one"}, "ReadData"},
               {many},
               {large}};
  for (const auto& c : cases) {
    for (const std::size_t limit : {std::size_t{1} << 20, std::size_t{7}}) {
      if (limit == 7 && c.chunks.size() == large.size()) continue;
      std::string results[2];
      for (const bool ahead : {false, true}) {
        test::ScriptedTransport inner;
        inner.chunks = c.chunks;
        inner.failing_step = c.failing_step;
        inner.failure_code = 12002;
        inner.ends_in_empty_read = c.ends_in_empty_read;
        ReadAheadTransport transport(inner, ahead ? [] {} : KeepAlive());
        // The script hands out whole chunks only.
        results[ahead ? 1 : 0] = ReadAll(transport, ahead ? limit : std::size_t{1} << 20);
        transport.Close();
      }
      EXPECT_EQ(results[0], results[1]) << c.chunks.size() << c.failing_step << limit;
    }
  }
}

/// Blocks in one of its calls, by their number, until it is let go.
class BlockingTransport : public test::ScriptedTransport {
 public:
  explicit BlockingTransport(int blocking_call) : blocking_call_(blocking_call) {}
  bool SendAndReceive(std::uint32_t& code) override {
    Call();
    return ScriptedTransport::SendAndReceive(code);
  }
  bool QueryDataAvailable(std::size_t& available, std::uint32_t& code) override {
    Call();
    return ScriptedTransport::QueryDataAvailable(available, code);
  }
  std::atomic<bool> let_go = false;

 private:
  void Call() {
    ++call_;
    while (call_ == blocking_call_ && !let_go) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  const int blocking_call_;
  int call_ = 0;
};

TEST(ReadAheadTransport, KeepsItsCallerAliveWhileTheOtherOneBlocks) {
  for (const int blocking_call : {1, 2, 3}) {  // the answer, the body, what is read ahead of it
    BlockingTransport inner(blocking_call);
    inner.chunks = {"body"};
    int calls = 0;
    ReadAheadTransport transport(inner, [&] {
      if (++calls == 3) inner.let_go = true;  // nothing else would end this test
    });
    std::uint32_t code = 0;
    std::size_t count = 0;
    char body[5] = "";
    EXPECT_TRUE(transport.SendAndReceive(code));
    EXPECT_TRUE(transport.QueryDataAvailable(count, code));
    EXPECT_TRUE(transport.ReadData(body, count, count, code));
    EXPECT_STREQ(body, "body");
    transport.Close();
    EXPECT_GE(calls, 3) << blocking_call;
  }
}

}  // namespace
}  // namespace zul
