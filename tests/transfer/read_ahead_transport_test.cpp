#include "transfer/read_ahead_transport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/transfer/scripted_transport.h"

namespace zul {
namespace {

constexpr std::size_t kWholeChunks = std::size_t{1} << 20;

/// What a caller of the transport gets of a body, reading `limit` bytes at a time, and where it
/// ends.
std::string ReadAll(DownloadTransport& transport, std::size_t limit) {
  for (std::string body;;) {
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
  for (unsigned i = 0; i < 500; ++i) many.push_back(std::string(1 + i, 'a'));
  const struct {
    std::vector<std::string> chunks;
    const char* failing_step = "";
    bool ends_in_empty_read = false;
    std::size_t limit = 7;
  } cases[] = {{{}},
               {{"one", "two"}, "", true},
               {{"one", "two"}, "QueryDataAvailable"},
               {{"one"}, "ReadData"},
               {many},
               {many, "", false, kWholeChunks},
               {std::vector<std::string>(5, std::string(600'000, 'b')), "", false, kWholeChunks}};
  for (const auto& c : cases) {
    const auto read = [&c](const KeepAlive& keep_alive, std::size_t limit) {
      test::ScriptedTransport inner;
      inner.chunks = c.chunks;
      inner.failing_step = c.failing_step;
      inner.failure_code = 12002;
      inner.ends_in_empty_read = c.ends_in_empty_read;
      ReadAheadTransport transport(inner, keep_alive);
      std::string result = ReadAll(transport, limit);
      transport.Close();
      return result;
    };
    // Without reading ahead the script hands out whole chunks only.
    EXPECT_EQ(read([] {}, c.limit), read({}, kWholeChunks)) << &c - cases;
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
    for (++call_; call_ == blocking_call_ && !let_go;) {
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
