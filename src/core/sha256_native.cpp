// SHA-256 by FIPS 180-4, sections 4.1.2, 4.2.2, 5 and 6.2. No operation can fail.

#include "core/sha256.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace zul {

namespace {

constexpr std::size_t kBlockBytes = 64;
constexpr std::size_t kLengthOffset = 56;

using Words = std::array<std::uint32_t, 8>;

constexpr Words kInitialHash = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

constexpr std::array<std::uint32_t, 64> kRoundConstants = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

std::uint32_t ReadBigEndian(const std::uint8_t* bytes) {
  return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
         static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

std::array<std::uint32_t, 64> MessageSchedule(const std::uint8_t* block) {
  std::array<std::uint32_t, 64> w{};
  for (std::size_t t = 0; t < 16; ++t) w[t] = ReadBigEndian(block + 4 * t);
  for (std::size_t t = 16; t < 64; ++t) {
    const std::uint32_t small0 =
        std::rotr(w[t - 15], 7) ^ std::rotr(w[t - 15], 18) ^ (w[t - 15] >> 3);
    const std::uint32_t small1 =
        std::rotr(w[t - 2], 17) ^ std::rotr(w[t - 2], 19) ^ (w[t - 2] >> 10);
    w[t] = small1 + w[t - 7] + small0 + w[t - 16];
  }
  return w;
}

void Compress(Words& hash, const std::uint8_t* block) {
  const std::array<std::uint32_t, 64> w = MessageSchedule(block);
  auto [a, b, c, d, e, f, g, h] = hash;
  for (std::size_t t = 0; t < 64; ++t) {
    const std::uint32_t big1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
    const std::uint32_t choose = (e & f) ^ (~e & g);
    const std::uint32_t t1 = h + big1 + choose + kRoundConstants[t] + w[t];
    const std::uint32_t big0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
    const std::uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + big0 + majority;
  }
  const Words mixed = {a, b, c, d, e, f, g, h};
  for (std::size_t i = 0; i < hash.size(); ++i) hash[i] += mixed[i];
}

}  // namespace

struct Sha256::State {
  Words hash = kInitialHash;
  std::array<std::uint8_t, kBlockBytes> block{};
  std::size_t used = 0;  ///< bytes in `block`
  std::uint64_t length_bytes = 0;

  void Add(const std::uint8_t* data, std::size_t size) {
    length_bytes += size;
    while (size != 0) {
      const std::size_t taken = std::min(size, kBlockBytes - used);
      std::memcpy(block.data() + used, data, taken);
      used += taken;
      data += taken;
      size -= taken;
      if (used != kBlockBytes) return;
      Compress(hash, block.data());
      used = 0;
    }
  }

  /// Section 5.1.1: one bit, zeros, and the length in bits that ends a block.
  void Pad() {
    const std::uint64_t length_bits = length_bytes * 8;
    const std::uint8_t end_mark = 0x80;
    const std::uint8_t zero = 0;
    Add(&end_mark, 1);
    while (used != kLengthOffset) Add(&zero, 1);
    std::array<std::uint8_t, 8> length{};
    for (std::size_t i = 0; i < length.size(); ++i) {
      length[i] = static_cast<std::uint8_t>(length_bits >> (56 - 8 * i));
    }
    Add(length.data(), length.size());
  }
};

Sha256::Sha256() : state_(std::make_unique<State>()) {}
Sha256::~Sha256() = default;

bool Sha256::Begin(std::string*) {
  *state_ = State();
  return true;
}

bool Sha256::Update(const void* data, std::size_t size, std::string*) {
  state_->Add(static_cast<const std::uint8_t*>(data), size);
  return true;
}

bool Sha256::Finish(Sha256Digest* digest, std::string*) {
  state_->Pad();
  for (std::size_t i = 0; i < digest->size(); ++i) {
    (*digest)[i] = static_cast<std::uint8_t>(state_->hash[i / 4] >> (24 - 8 * (i % 4)));
  }
  return true;
}

}  // namespace zul
