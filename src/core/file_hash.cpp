#include "core/file_hash.h"

#include <vector>

#include "core/failure.h"
#include "core/sha256.h"

namespace zul {

namespace {

constexpr std::size_t kReadBufferBytes = 65536;
constexpr unsigned kReadsPerKeepAlive = 16;  // a MiB

std::string HexText(const Sha256Digest& digest) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(digest.size() * 2);
  for (const std::uint8_t byte : digest) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

bool HashOpenFile(fs::File& file, Sha256Digest* digest, std::string* error,
                  const fs::KeepAlive& keep_alive) {
  Sha256 hash;
  if (!hash.Begin(error)) return false;
  std::vector<unsigned char> buffer(kReadBufferBytes);
  std::error_code ec;
  std::size_t read = 0;
  unsigned reads = 0;
  // A read error counts as the end of the file. The digest of a part matches no expected digest.
  while (file.Read(buffer.data(), buffer.size(), &read, ec) && read != 0) {
    if (!hash.Update(buffer.data(), read, error)) return false;
    if (keep_alive && ++reads % kReadsPerKeepAlive == 0) keep_alive();
  }
  return hash.Finish(digest, error);
}

}  // namespace

bool ComputeFileSha256(const fs::Path& path, std::string* hex, std::string* error,
                       const fs::KeepAlive& keep_alive) {
  hex->clear();
  std::error_code ec;
  fs::File file = fs::OpenForRead(path, ec);
  if (!file.is_open()) return Fail(error, "Cannot open file for SHA-256.");
  return ComputeFileSha256(file, hex, error, keep_alive);
}

bool ComputeFileSha256(fs::File& file, std::string* hex, std::string* error,
                       const fs::KeepAlive& keep_alive) {
  hex->clear();
  Sha256Digest digest;
  if (!HashOpenFile(file, &digest, error, keep_alive)) return false;
  *hex = HexText(digest);
  return true;
}

}  // namespace zul
