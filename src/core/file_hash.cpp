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

/// What was read of a file. `failure` is set when a read failed.
struct Reading {
  Sha256Digest digest;
  std::uint64_t size_bytes = 0;
  std::error_code failure{};
};

bool HashOpenFile(fs::File& file, Reading* reading, std::string* error,
                  const fs::KeepAlive& keep_alive) {
  Sha256 hash;
  if (!hash.Begin(error)) return false;
  std::vector<unsigned char> buffer(kReadBufferBytes);
  std::size_t read = 0;
  unsigned reads = 0;
  while (file.Read(buffer.data(), buffer.size(), &read, reading->failure) && read != 0) {
    if (!hash.Update(buffer.data(), read, error)) return false;
    reading->size_bytes += read;
    if (keep_alive && ++reads % kReadsPerKeepAlive == 0) keep_alive();
  }
  return hash.Finish(&reading->digest, error);
}

bool Open(const fs::Path& path, fs::File* file, std::string* error) {
  std::error_code ec;
  *file = fs::OpenForRead(path, ec);
  return file->is_open() || Fail(error, "Cannot open file for SHA-256.");
}

}  // namespace

bool ComputeFileSha256(const fs::Path& path, std::string* hex, std::string* error,
                       const fs::KeepAlive& keep_alive) {
  hex->clear();
  fs::File file;
  return Open(path, &file, error) && ComputeFileSha256(file, hex, error, keep_alive);
}

bool ComputeFileSha256(fs::File& file, std::string* hex, std::string* error,
                       const fs::KeepAlive& keep_alive) {
  hex->clear();
  Reading reading;
  if (!HashOpenFile(file, &reading, error, keep_alive)) return false;
  // A read error counts as the end of the file. The digest of a part matches no expected digest.
  *hex = HexText(reading.digest);
  return true;
}

bool ReadFileDigest(const fs::Path& path, FileDigest* digest, std::string* error,
                    const fs::KeepAlive& keep_alive) {
  *digest = {};
  fs::File file;
  Reading reading;
  if (!Open(path, &file, error) || !HashOpenFile(file, &reading, error, keep_alive)) return false;
  std::error_code& ec = reading.failure;
  std::uint64_t size_bytes = 0;
  if (ec || !file.Size(&size_bytes, ec)) return Fail(error, "Cannot read file for SHA-256: ", ec);
  if (size_bytes != reading.size_bytes) {
    return Fail(error, "Cannot read the whole file for SHA-256.");
  }
  *digest = {HexText(reading.digest), size_bytes};
  return true;
}

}  // namespace zul
