#pragma once

// A transport that keeps a window alive while the network keeps it waiting: it hands every call on
// to another transport, and those that block to a thread. From the first piece of the body on, one
// thread reads ahead, so that a fast download is not slowed down by handing over piece by piece; it
// holds at most kMaxPieces pieces, and asks for no more once they make kMaxBytes.

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <future>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/keep_alive.h"
#include "transfer/download_transport.h"

namespace zul {

class ReadAheadTransport final : public DownloadTransport {
 public:
  static constexpr std::size_t kMaxPieces = 64;
  static constexpr std::size_t kMaxBytes = std::size_t{1} << 20;

  /// `inner` is borrowed. Without a `keep_alive` every call just goes to it.
  ReadAheadTransport(DownloadTransport& inner, KeepAlive keep_alive)
      : inner_(inner), keep_alive_(std::move(keep_alive)) {}
  ~ReadAheadTransport() override { StopReader(); }
  ReadAheadTransport(const ReadAheadTransport&) = delete;
  ReadAheadTransport& operator=(const ReadAheadTransport&) = delete;

  [[nodiscard]] bool OpenSession(std::string_view user_agent, std::uint32_t& code) override {
    return inner_.OpenSession(user_agent, code);
  }
  void SetTimeouts(const TransportTimeouts& timeouts) override { inner_.SetTimeouts(timeouts); }
  [[nodiscard]] bool Connect(const std::wstring& host, std::uint16_t port,
                             std::uint32_t& code) override {
    return inner_.Connect(host, port, code);
  }
  [[nodiscard]] bool OpenRequest(const std::wstring& path_and_query, bool secure,
                                 std::uint32_t& code) override {
    return inner_.OpenRequest(path_and_query, secure, code);
  }
  [[nodiscard]] bool SendAndReceive(std::uint32_t& code) override;

  [[nodiscard]] bool QueryStatus(std::int32_t& status, std::uint32_t& code) override {
    return inner_.QueryStatus(status, code);
  }
  [[nodiscard]] std::string ContentLengthText() override { return inner_.ContentLengthText(); }
  [[nodiscard]] std::string EffectiveUrl() override { return inner_.EffectiveUrl(); }

  [[nodiscard]] bool QueryDataAvailable(std::size_t& available, std::uint32_t& code) override;
  [[nodiscard]] bool ReadData(void* buffer, std::size_t size, std::size_t& read,
                              std::uint32_t& code) override;

  /// A read that is under way is waited for, at most until its time-out.
  void Close() override {
    StopReader();
    inner_.Close();
  }

 private:
  /// What one pair of calls for the body brought. The last one stays, whatever is asked again.
  struct Piece {
    bool announced = false;     ///< QueryDataAvailable succeeded
    bool received = false;      ///< and ReadData did
    std::uint32_t code = 0;     ///< why one of them did not
    std::size_t available = 0;  ///< what was announced
    std::size_t size = 0;       ///< what came, in `data`
    std::size_t taken = 0;      ///< and has been handed out
    std::vector<unsigned char> data;

    [[nodiscard]] bool IsLast() const { return !announced || !received || size == 0; }
  };

  [[nodiscard]] bool HasReader();
  void StopReader();
  Piece& AwaitPiece();
  void DropPiece();
  // On the reader's thread.
  void ReadBody();
  bool AwaitRoom();
  void Receive(Piece& piece);
  void Publish(const Piece& piece);

  DownloadTransport& inner_;
  KeepAlive keep_alive_;
  std::future<void> reader_;
  std::size_t next_free_ = 0;  // the reader's
  std::size_t first_ = 0;      // the caller's
  std::array<Piece, kMaxPieces> pieces_;
  std::mutex mutex_;  // guards what follows
  std::condition_variable has_pieces_;
  std::condition_variable has_room_;
  std::size_t filled_ = 0;
  std::size_t bytes_ = 0;
  bool caller_waits_ = false;
  bool reader_waits_ = false;
  bool stop_ = false;
};

}  // namespace zul
