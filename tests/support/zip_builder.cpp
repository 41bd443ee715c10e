#include "tests/support/zip_builder.h"

#include <zlib.h>

#include <stdexcept>

namespace zul::test {

namespace {

constexpr std::uint64_t kAllOnes32 = 0xFFFFFFFF;

/// The low `width` bytes of a number, little-endian.
std::string Number(std::uint64_t value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xFF);
  return bytes;
}

const Bytef* BytesOf(std::string_view bytes) {
  return reinterpret_cast<const Bytef*>(bytes.data());
}

std::uint64_t Either(const std::map<ZipField, std::uint64_t>& wrong, ZipField field,
                     std::uint64_t right) {
  const auto found = wrong.find(field);
  return found == wrong.end() ? right : found->second;
}

}  // namespace

std::uint32_t Crc32(std::string_view bytes) {
  return static_cast<std::uint32_t>(crc32(0, BytesOf(bytes), static_cast<uInt>(bytes.size())));
}

std::string ZipExtra(std::uint16_t id, std::string_view data) {
  return Number(id, 2) + Number(data.size(), 2) + std::string(data);
}

std::string UnicodePathExtra(std::string_view raw_name, std::string_view utf8_name) {
  return ZipExtra(0x7075, "\x01" + Number(Crc32(raw_name), 4) + std::string(utf8_name));
}

std::string ZipEntryBuilder::Packed() const {
  if (!deflated_) return data_;
  const auto size = static_cast<uLong>(data_.size());
  uLongf packed_size = compressBound(size);
  std::string packed(packed_size, '\0');
  if (compress(reinterpret_cast<Bytef*>(packed.data()), &packed_size, BytesOf(data_), size) !=
      Z_OK) {
    throw std::runtime_error("cannot deflate");
  }
  return packed.substr(2, packed_size - 6);  // without zlib's header and checksum
}

std::string ZipEntryBuilder::Header(const Fields& wrong, std::string_view between,
                                    std::string_view zip64_offset) const {
  const std::uint64_t size = data_.size();
  const std::uint64_t packed_size = Packed().size();
  std::string extra;
  if (zip64_) {
    extra = ZipExtra(1, Number(size, 8) + Number(packed_size, 8) + std::string(zip64_offset));
  }
  return Number(zip64_ ? 45 : 20, 2) + Number(Either(wrong, ZipField::kFlags, 0), 2) +
         Number(deflated_ ? 8 : 0, 2) + Number(0, 4) + Number(Crc32(data_), 4) +
         Number(zip64_ ? kAllOnes32 : packed_size, 4) + Number(zip64_ ? kAllOnes32 : size, 4) +
         Number(name_.size(), 2) + Number(extra.size(), 2) + std::string(between) + name_ + extra;
}

std::string ZipBuilder::Build() const {
  std::string locals;
  std::string directory;
  for (const ZipEntryBuilder& entry : entries_) {
    const std::uint64_t offset = entry.zip64_ ? kAllOnes32 : locals.size();
    // No comment, the first disk, no attributes, and the offset of the local header.
    const std::string between =
        std::string(10, '\0') + Number(Either(entry.central_, ZipField::kLocalOffset, offset), 4);
    directory += Number(Either(entry.central_, ZipField::kSignature, 0x02014B50), 4) +
                 Number(3 << 8 | 20, 2) +  // made by a Unix system
                 entry.Header(entry.central_, between, Number(locals.size(), 8));
    locals += Number(Either(entry.local_, ZipField::kSignature, 0x04034B50), 4) +
              entry.Header(entry.local_, "", "") + entry.Packed();
  }
  return locals + directory + "PK\x05\x06" + std::string(4, '\0') + Number(entries_.size(), 2) +
         Number(entries_.size(), 2) + Number(directory.size(), 4) + Number(locals.size(), 4) +
         Number(0, 2);
}

}  // namespace zul::test
