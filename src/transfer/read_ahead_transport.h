#pragma once

// A transport that keeps the window alive while the network blocks. It forwards every call to
// another transport; the calls that wait for the network run on a second thread. From the first
// piece of the body on, that thread reads ahead, so that a fast download does not wait for a thread
// switch with each piece. It holds at most kMaxPieces pieces and stops reading at kMaxBytes. An
// exception on that thread, which means that memory ran out, is reported as a failed read.

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

  /// `inner` is borrowed. With an empty `keep_alive` every call goes to `inner` on this thread.
  ReadAheadTransport(DownloadTransport& inner, KeepAlive keep_alive)
      : inner_(inner), keep_alive_(std::move(keep_alive)) {}
  ~ReadAheadTransport() override { StopReader(); }
  ReadAheadTransport(const ReadAheadTransport&) = delete;
  ReadAheadTransport& operator=(const ReadAheadTransport&) = delete;

  [[nodiscard]] bool OpenSession(std::string_view user_agent, std::uint32_t* code) override {
    return inner_.OpenSession(user_agent, code);
  }
  void SetTimeouts(const TransportTimeouts& timeouts) override { inner_.SetTimeouts(timeouts); }
  [[nodiscard]] bool Connect(const std::wstring& host, std::uint16_t port,
                             std::uint32_t* code) override {
    return inner_.Connect(host, port, code);
  }
  [[nodiscard]] bool OpenRequest(const std::wstring& path_and_query, bool secure,
                                 std::uint32_t* code) override {
    return inner_.OpenRequest(path_and_query, secure, code);
  }
  [[nodiscard]] bool SendAndReceive(std::uint32_t* code) override;

  [[nodiscard]] bool QueryStatus(std::int32_t* status, std::uint32_t* code) override {
    return inner_.QueryStatus(status, code);
  }
  [[nodiscard]] std::string ContentLengthText() override { return inner_.ContentLengthText(); }
  [[nodiscard]] std::string EffectiveUrl() override { return inner_.EffectiveUrl(); }

  [[nodiscard]] bool QueryDataAvailable(std::size_t* available, std::uint32_t* code) override;
  [[nodiscard]] bool ReadData(void* buffer, std::size_t size, std::size_t* read,
                              std::uint32_t* code) override;

  /// Waits for a read in progress, at most until its time-out.
  void Close() override {
    StopReader();
    inner_.Close();
  }

 private:
  /// The result of one QueryDataAvailable and one ReadData. The last piece is never dropped, so
  /// that every further call reports the end again.
  struct Piece {
    bool announced = false;     ///< QueryDataAvailable succeeded
    bool received = false;      ///< ReadData succeeded
    std::uint32_t code = 0;     ///< the error of the call that failed
    std::size_t available = 0;  ///< bytes that QueryDataAvailable announced
    std::size_t size = 0;       ///< bytes in `data`
    std::size_t taken = 0;      ///< bytes that the caller has read
    std::vector<unsigned char> data;

    [[nodiscard]] bool IsLast() const { return !announced || !received || size == 0; }
  };

  [[nodiscard]] bool HasReader();
  void StopReader();
  Piece& AwaitPiece();
  void DropPiece();
  // These run on the reader's thread.
  void ReadBody();
  bool AwaitRoom();
  void Receive(Piece* piece);
  void ReceiveOrFail(Piece* piece);
  void Publish(const Piece& piece);

  DownloadTransport& inner_;
  KeepAlive keep_alive_;
  std::future<void> reader_;
  std::size_t next_free_ = 0;  // used by the reader only
  std::size_t first_ = 0;      // used by the caller only
  std::array<Piece, kMaxPieces> pieces_;
  std::mutex mutex_;  // guards the members below
  std::condition_variable has_pieces_;
  std::condition_variable has_room_;
  std::size_t filled_ = 0;
  std::size_t bytes_ = 0;
  bool caller_waits_ = false;
  bool reader_waits_ = false;
  bool stop_ = false;
};

}  // namespace zul
