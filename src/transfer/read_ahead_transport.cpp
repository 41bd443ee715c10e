#include "transfer/read_ahead_transport.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <system_error>

namespace zul {

namespace {

/// The caller looks for pieces this often, and the reader wakes it earlier only when there are
/// many. A wake for each piece would slow down a fast download.
constexpr std::chrono::milliseconds kLookPeriod{10};
constexpr std::size_t kManyPieces = ReadAheadTransport::kMaxPieces / 2;
constexpr std::size_t kManyBytes = ReadAheadTransport::kMaxBytes / 2;
/// ERROR_NOT_ENOUGH_MEMORY of WinError.h.
constexpr std::uint32_t kOutOfMemoryCode = 8;

}  // namespace

bool ReadAheadTransport::SendAndReceive(std::uint32_t* code) {
  bool succeeded = false;
  RunKeepingAlive([&] { succeeded = inner_.SendAndReceive(code); }, keep_alive_);
  return succeeded;
}

bool ReadAheadTransport::QueryDataAvailable(std::size_t* available, std::uint32_t* code) {
  if (!HasReader()) return inner_.QueryDataAvailable(available, code);
  const Piece& piece = AwaitPiece();
  *available = piece.available - piece.taken;
  *code = piece.announced ? 0 : piece.code;
  return piece.announced;
}

bool ReadAheadTransport::ReadData(void* buffer, std::size_t size, std::size_t* read,
                                  std::uint32_t* code) {
  if (!HasReader()) return inner_.ReadData(buffer, size, read, code);
  Piece& piece = AwaitPiece();
  *code = piece.code;
  *read = std::min(size, piece.size - piece.taken);
  if (*read != 0) std::memcpy(buffer, piece.data.data() + piece.taken, *read);
  piece.taken += *read;
  const bool received = piece.received;
  if (!piece.IsLast() && piece.taken == piece.size) DropPiece();
  return received;
}

/// Starts the reader with the first call. When the system cannot create a thread, the transport
/// continues without keep-alive.
bool ReadAheadTransport::HasReader() {
  if (!keep_alive_ || reader_.valid()) return static_cast<bool>(keep_alive_);
  try {
    reader_ = std::async(std::launch::async, [this] { ReadBody(); });
  } catch (const std::system_error&) {
    keep_alive_ = {};
  }
  return reader_.valid();
}

void ReadAheadTransport::StopReader() {
  if (!reader_.valid()) return;
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  has_room_.notify_one();
  while (reader_.wait_for(kLookPeriod) != std::future_status::ready) keep_alive_();
}

ReadAheadTransport::Piece& ReadAheadTransport::AwaitPiece() {
  std::unique_lock lock(mutex_);
  while (filled_ == 0) {
    caller_waits_ = true;
    if (has_pieces_.wait_for(lock, kLookPeriod) == std::cv_status::no_timeout) continue;
    lock.unlock();
    keep_alive_();
    lock.lock();
  }
  caller_waits_ = false;
  return pieces_[first_];
}

void ReadAheadTransport::DropPiece() {
  bool wake = false;
  {
    const std::lock_guard lock(mutex_);
    bytes_ -= pieces_[first_].size;
    first_ = (first_ + 1) % kMaxPieces;
    --filled_;
    wake = reader_waits_ && filled_ <= kManyPieces && bytes_ <= kManyBytes;
  }
  if (wake) has_room_.notify_one();
}

void ReadAheadTransport::ReadBody() {
  bool more = true;
  while (more && AwaitRoom()) {
    Piece& piece = pieces_[next_free_];
    ReceiveOrFail(&piece);
    more = !piece.IsLast();
    next_free_ = (next_free_ + 1) % kMaxPieces;
    Publish(piece);
  }
}

/// False when the transport is being closed.
bool ReadAheadTransport::AwaitRoom() {
  std::unique_lock lock(mutex_);
  reader_waits_ = true;
  has_room_.wait(lock, [this] { return stop_ || (filled_ < kMaxPieces && bytes_ < kMaxBytes); });
  reader_waits_ = false;
  return !stop_;
}

void ReadAheadTransport::Receive(Piece* piece) {
  piece->received = false;
  piece->available = piece->size = piece->taken = 0;
  piece->code = 0;
  piece->announced = inner_.QueryDataAvailable(&piece->available, &piece->code);
  if (!piece->announced || piece->available == 0) return;
  if (piece->data.size() < piece->available) piece->data.resize(piece->available);
  piece->received =
      inner_.ReadData(piece->data.data(), piece->available, &piece->size, &piece->code);
}

/// The caller waits for a piece, so an exception becomes one that reports a failure.
void ReadAheadTransport::ReceiveOrFail(Piece* piece) {
  try {
    Receive(piece);
  } catch (...) {
    piece->announced = piece->received = false;
    piece->available = piece->size = 0;
    piece->code = kOutOfMemoryCode;
  }
}

void ReadAheadTransport::Publish(const Piece& piece) {
  bool wake = false;
  {
    const std::lock_guard lock(mutex_);
    ++filled_;
    bytes_ += piece.size;
    wake = caller_waits_ && (piece.IsLast() || filled_ >= kManyPieces || bytes_ >= kManyBytes);
    if (wake) caller_waits_ = false;
  }
  if (wake) has_pieces_.notify_one();
}

}  // namespace zul
