#include "tests/fuzz/mend_zip.h"

#include <zlib.h>

#include <optional>

#include "package/zip_names.h"
#include "tests/support/zip_builder.h"

namespace zul::fuzz {

namespace {

// Offsets in a central record (APPNOTE 4.3.12) and in a local header (4.3.7). From the flags to the
// uncompressed size both have the same fields.
constexpr std::size_t kCentralBytes = 46;
constexpr std::size_t kCentralShared = 8;
constexpr std::size_t kCentralMethod = 10;
constexpr std::size_t kCentralCrc = 16;
constexpr std::size_t kCentralCompressedSize = 20;
constexpr std::size_t kCentralUncompressedSize = 24;
constexpr std::size_t kCentralNameLength = 28;
constexpr std::size_t kCentralLocalOffset = 42;
constexpr std::size_t kLocalBytes = 30;
constexpr std::size_t kLocalShared = 6;
constexpr std::size_t kSharedBytes = 20;
constexpr std::size_t kLocalNameLength = 26;
constexpr std::size_t kLocalExtraLength = 28;

std::optional<std::string> Inflate(std::string_view data) {
  z_stream stream{};
  if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) return std::nullopt;
  std::string out(std::size_t{1} << 20, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int status = inflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  inflateEnd(&stream);
  if (status != Z_STREAM_END) return std::nullopt;
  return out;
}

void MendEntry(std::string& bytes, std::size_t central) {
  const std::size_t local = LittleEndian32(bytes, central + kCentralLocalOffset);
  if (local > central || central - local < kLocalBytes) return;
  const std::size_t data = local + kLocalBytes + LittleEndian16(bytes, local + kLocalNameLength) +
                           LittleEndian16(bytes, local + kLocalExtraLength);
  const std::size_t size = LittleEndian32(bytes, central + kCentralCompressedSize);
  if (data > central || central - data < size) return;
  const bool deflated = LittleEndian16(bytes, central + kCentralMethod) == 8;
  const std::string stored = bytes.substr(data, size);
  const std::optional<std::string> contents = deflated ? Inflate(stored) : stored;
  if (!contents) return;
  const auto crc = crc32(0, reinterpret_cast<const Bytef*>(contents->data()),
                         static_cast<uInt>(contents->size()));
  bytes.replace(central + kCentralCrc, 4, test::LittleEndianBytes(crc, 4));
  bytes.replace(central + kCentralUncompressedSize, 4,
                test::LittleEndianBytes(contents->size(), 4));
  bytes.replace(local + kLocalShared, kSharedBytes,
                bytes.substr(central + kCentralShared, kSharedBytes));
  const std::size_t name_length = LittleEndian16(bytes, local + kLocalNameLength);
  if (LittleEndian16(bytes, central + kCentralNameLength) == name_length &&
      bytes.size() - central - kCentralBytes >= name_length) {
    bytes.replace(local + kLocalBytes, name_length,
                  bytes.substr(central + kCentralBytes, name_length));
  }
}

}  // namespace

std::string MendZip(std::string_view archive) {
  constexpr std::string_view kCentralSignature = "PK\x01\x02";
  std::string bytes(archive);
  for (std::size_t at = bytes.find(kCentralSignature);
       at != std::string::npos && bytes.size() - at >= kCentralBytes;
       at = bytes.find(kCentralSignature, at + kCentralBytes)) {
    MendEntry(bytes, at);
  }
  return bytes;
}

}  // namespace zul::fuzz
