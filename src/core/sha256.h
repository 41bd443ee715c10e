#pragma once

// SHA-256 (FIPS 180-4) of data in pieces. On Windows the system's provider computes it, on other
// systems our own code.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace zul {

using Sha256Digest = std::array<std::uint8_t, 32>;

/// One computation: `Begin`, then `Update` any number of times, then `Finish`. A failure stores its
/// message in `*error` (may be null); the object cannot be used after it.
class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  [[nodiscard]] bool Begin(std::string* error);
  [[nodiscard]] bool Update(const void* data, std::size_t size, std::string* error);
  [[nodiscard]] bool Finish(Sha256Digest* digest, std::string* error);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zul
