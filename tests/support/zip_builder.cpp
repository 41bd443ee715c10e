#include "tests/support/zip_builder.h"

#include <zlib.h>

#include <stdexcept>

namespace zul::test {

namespace {

constexpr std::uint16_t kZip64Version = 45;
constexpr std::uint64_t kAllOnes16 = 0xFFFF;
constexpr std::uint64_t kAllOnes32 = 0xFFFFFFFF;
constexpr std::uint16_t kStreamedFlag = 8;
constexpr std::uint16_t kUnixMadeBy = 3 << 8 | 20;

// Little-endian fields in the order in which they are put.
class Bytes {
 public:
  Bytes& U16(std::uint64_t value) { return Put(value, 2); }
  Bytes& U32(std::uint64_t value) { return Put(value, 4); }
  Bytes& U64(std::uint64_t value) { return Put(value, 8); }
  Bytes& Raw(std::string_view bytes) {
    text_.append(bytes);
    return *this;
  }
  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  Bytes& Put(std::uint64_t value, int width) { return Raw(LittleEndianBytes(value, width)); }

  std::string text_;
};

std::uint32_t CrcOf(std::string_view bytes) {
  return static_cast<std::uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

std::string Deflate(std::string_view data) {
  z_stream stream{};
  if (deflateInit2(&stream, 6, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("cannot start deflate");
  }
  std::string out(deflateBound(&stream, static_cast<uLong>(data.size())), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int status = deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  if (status != Z_STREAM_END) throw std::runtime_error("cannot deflate");
  return out;
}

using Fields = std::map<ZipField, std::uint64_t>;

/// The sizes of a Zip64 record, which leave all ones behind.
Bytes TakeSizes(Fields& fields) {
  Bytes record;
  record.U64(std::exchange(fields[ZipField::kUncompressedSize], kAllOnes32));
  record.U64(std::exchange(fields[ZipField::kCompressedSize], kAllOnes32));
  return record;
}

/// What stands alike in a local header and in a record of the central directory.
std::string SharedFields(Fields& fields, bool zip64, std::string_view name,
                         std::string_view extra) {
  return Bytes()
      .U16(zip64 ? kZip64Version : 20)
      .U16(fields[ZipField::kFlags])
      .U16(fields[ZipField::kMethod])
      .U32(0)  // time and date
      .U32(fields[ZipField::kCrc])
      .U32(fields[ZipField::kCompressedSize])
      .U32(fields[ZipField::kUncompressedSize])
      .U16(fields.try_emplace(ZipField::kNameLength, name.size()).first->second)
      .U16(fields.try_emplace(ZipField::kExtraLength, extra.size()).first->second)
      .text();
}

template <typename Map>
void Override(Map& fields, const Map& wrong) {
  for (const auto& [field, value] : wrong) fields[field] = value;
}

}  // namespace

std::string LittleEndianBytes(std::uint64_t value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xFF);
  return bytes;
}

std::string ZipExtra(std::uint16_t id, std::string_view data) {
  return Bytes().U16(id).U16(data.size()).Raw(data).text();
}

std::string UnicodePathExtra(std::string_view raw_name, std::string_view utf8_name) {
  return ZipExtra(0x7075, Bytes().Raw("\x01").U32(CrcOf(raw_name)).Raw(utf8_name).text());
}

std::string ZipEntryBuilder::Compressed() const {
  if (stored_bytes_) return *stored_bytes_;
  return deflated_ ? Deflate(data_) : data_;
}

ZipEntryBuilder::Fields ZipEntryBuilder::RightFields(std::uint64_t offset) const {
  return {
      {ZipField::kFlags, streamed_ ? kStreamedFlag : 0u},
      {ZipField::kMethod, deflated_ ? 8u : 0u},
      {ZipField::kCrc, CrcOf(data_)},
      {ZipField::kCompressedSize, Compressed().size()},
      {ZipField::kUncompressedSize, data_.size()},
      {ZipField::kDiskNumber, 0},
      {ZipField::kExternalAttributes, 0},
      {ZipField::kLocalOffset, offset},
  };
}

std::string ZipEntryBuilder::LocalHeaderAndData(std::uint64_t offset) const {
  Fields fields = RightFields(offset);
  const Fields right = fields;
  if (streamed_) {
    fields[ZipField::kCrc] = fields[ZipField::kCompressedSize] =
        fields[ZipField::kUncompressedSize] = 0;
  }
  Override(fields, local_fields_);
  std::string extra = local_extra_;
  if (zip64_) extra += ZipExtra(1, TakeSizes(fields).text());
  const std::string& name = local_name_.value_or(name_);
  Bytes bytes;
  bytes.U32(fields.try_emplace(ZipField::kSignature, 0x04034B50).first->second)
      .Raw(SharedFields(fields, zip64_, name, extra))
      .Raw(name)
      .Raw(extra)
      .Raw(Compressed());
  if (streamed_) {
    const int width = zip64_ ? 8 : 4;
    bytes.U32(0x08074B50)
        .U32(right.at(ZipField::kCrc))
        .Raw(LittleEndianBytes(right.at(ZipField::kCompressedSize), width))
        .Raw(LittleEndianBytes(right.at(ZipField::kUncompressedSize), width));
  }
  return bytes.text();
}

std::string ZipEntryBuilder::CentralRecord(std::uint64_t offset) const {
  Fields fields = RightFields(offset);
  Override(fields, central_fields_);
  std::string extra = central_extra_;
  if (zip64_) {
    Bytes record = TakeSizes(fields);
    extra +=
        ZipExtra(1, record.U64(std::exchange(fields[ZipField::kLocalOffset], kAllOnes32)).text());
  }
  return Bytes()
      .U32(fields.try_emplace(ZipField::kSignature, 0x02014B50).first->second)
      .U16(kUnixMadeBy)
      .Raw(SharedFields(fields, zip64_, name_, extra))
      .U16(0)  // comment length
      .U16(fields[ZipField::kDiskNumber])
      .U16(0)  // internal attributes
      .U32(fields[ZipField::kExternalAttributes])
      .U32(fields[ZipField::kLocalOffset])
      .Raw(name_)
      .Raw(extra)
      .text();
}

std::string ZipBuilder::EndRecords(EndFields fields) const {
  Bytes bytes;
  if (zip64_end_) {
    const std::uint64_t zip64_offset =
        fields[ZipEndField::kDirectoryOffset] + fields[ZipEndField::kDirectorySize];
    Override(fields, end_fields_);
    bytes.U32(0x06064B50)
        .U64(44)  // bytes that follow
        .U16(kZip64Version)
        .U16(kZip64Version)
        .U32(fields[ZipEndField::kDisk])
        .U32(fields[ZipEndField::kDirectoryDisk])
        .U64(std::exchange(fields[ZipEndField::kEntriesOnDisk], kAllOnes16))
        .U64(std::exchange(fields[ZipEndField::kEntries], kAllOnes16))
        .U64(std::exchange(fields[ZipEndField::kDirectorySize], kAllOnes32))
        .U64(std::exchange(fields[ZipEndField::kDirectoryOffset], kAllOnes32))
        .U32(0x07064B50)
        .U32(0)  // disk with the Zip64 end record
        .U64(zip64_offset)
        .U32(1);  // disks
  } else {
    Override(fields, end_fields_);
  }
  return bytes.U32(0x06054B50)
      .U16(fields[ZipEndField::kDisk])
      .U16(fields[ZipEndField::kDirectoryDisk])
      .U16(fields[ZipEndField::kEntriesOnDisk])
      .U16(fields[ZipEndField::kEntries])
      .U32(fields[ZipEndField::kDirectorySize])
      .U32(fields[ZipEndField::kDirectoryOffset])
      .U16(fields[ZipEndField::kCommentLength])
      .Raw(comment_)
      .text();
}

std::string ZipBuilder::Build() const {
  std::string locals;
  std::string directory;
  for (const ZipEntryBuilder& entry : entries_) {
    const std::uint64_t offset = locals.size();
    locals += entry.LocalHeaderAndData(offset);
    directory += entry.CentralRecord(offset);
  }
  return prefix_ + locals + directory +
         EndRecords({{ZipEndField::kEntriesOnDisk, entries_.size()},
                     {ZipEndField::kEntries, entries_.size()},
                     {ZipEndField::kDirectorySize, directory.size()},
                     {ZipEndField::kDirectoryOffset, locals.size()},
                     {ZipEndField::kCommentLength, comment_.size()}}) +
         suffix_;
}

}  // namespace zul::test
