#include "inspect/binary_identity.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "collector/module_record.h"
#include "core/file_layer.h"
#include "package/zip_names.h"

namespace zul {

namespace {

constexpr std::size_t kHeaderOffsetAt = 60;
constexpr std::size_t kSectionCountAt = 6;
constexpr std::size_t kTimestampAt = 8;
constexpr std::size_t kOptionalSizeAt = 20;
constexpr std::size_t kOptionalAt = 24;
constexpr std::size_t kImageSizeAt = 56;  // in the optional header, as those below
constexpr std::uint16_t kMagic32 = 0x10B;
constexpr std::uint16_t kMagic64 = 0x20B;
constexpr std::size_t kCertificates32At = 128;
constexpr std::size_t kCertificates64At = 144;
constexpr std::size_t kSectionBytes = 40;
constexpr std::size_t kSectionsMax = 96;  // the loader's limit

class BinaryFile {
 public:
  [[nodiscard]] bool Open(const fs::Path& path) {
    std::error_code ec;
    file_ = fs::OpenForRead(path, ec);
    return file_.is_open() && file_.Size(&size_, ec);
  }

  /// True when all `size` bytes are in the file.
  [[nodiscard]] bool Read(std::uint64_t at, void* to, std::size_t size) {
    std::error_code ec;
    std::size_t read = 0;
    return at <= size_ && size <= size_ - at && fs::ReadUpTo(file_, at, to, size, &read, ec) &&
           read == size;
  }

  [[nodiscard]] std::string Bytes(std::uint64_t at, std::size_t size) {
    std::string bytes(size, '\0');
    return Read(at, bytes.data(), size) ? bytes : std::string();
  }

  [[nodiscard]] std::uint64_t size() const { return size_; }

 private:
  fs::File file_;
  std::uint64_t size_ = 0;
};

/// A part of the image and its place in the file.
struct Section {
  std::uint32_t rva = 0;
  std::uint32_t size = 0;
  std::uint32_t file_offset = 0;
};

std::vector<Section> ReadSections(BinaryFile& file, std::uint64_t at, std::size_t count) {
  std::vector<Section> sections;
  for (std::size_t i = 0; i < std::min(count, kSectionsMax); ++i) {
    const std::string bytes = file.Bytes(at + i * kSectionBytes, kSectionBytes);
    if (bytes.empty()) break;
    sections.push_back(
        {LittleEndian32(bytes, 12), LittleEndian32(bytes, 16), LittleEndian32(bytes, 20)});
  }
  return sections;
}

/// Reads the file as the loader would map it. The headers are before the first section.
MemoryReader MappedReader(BinaryFile& file, std::vector<Section> sections) {
  return [&file, sections = std::move(sections)](std::uint64_t rva, void* to, std::size_t size) {
    for (const Section& section : sections) {
      if (rva < section.rva || rva - section.rva >= section.size) continue;
      return size <= section.size - (rva - section.rva) &&
             file.Read(section.file_offset + (rva - section.rva), to, size);
    }
    return file.Read(rva, to, size);
  };
}

bool HasCertificates(BinaryFile& file, std::string_view optional, std::size_t at) {
  if (optional.size() < at + 8) return false;
  const std::uint64_t offset = LittleEndian32(optional, at);
  const std::uint64_t size = LittleEndian32(optional, at + 4);
  return offset != 0 && size != 0 && offset + size <= file.size();
}

void ReadBuildId(BinaryFile& file, std::uint64_t sections_at, std::size_t section_count,
                 BinaryIdentity* identity) {
  ModuleRecord module{.base = 0, .image_size = identity->image_size};
  ReadModuleIdentity(MappedReader(file, ReadSections(file, sections_at, section_count)), &module);
  identity->pdb_guid = module.pdb_guid;
  identity->pdb_age = module.pdb_age;
}

}  // namespace

bool ReadBinaryIdentity(const fs::Path& path, BinaryIdentity* identity) {
  *identity = BinaryIdentity();
  BinaryFile file;
  if (!file.Open(path)) return false;
  const std::string dos = file.Bytes(0, 64);
  if (!dos.starts_with("MZ")) return false;
  const std::uint64_t headers_at = LittleEndian32(dos, kHeaderOffsetAt);
  const std::string headers = file.Bytes(headers_at, kOptionalAt);
  if (!headers.starts_with(std::string_view("PE\0\0", 4))) return false;
  const std::size_t optional_size = LittleEndian16(headers, kOptionalSizeAt);
  const std::string optional = file.Bytes(headers_at + kOptionalAt, optional_size);
  if (optional.size() < kImageSizeAt + 4) return false;
  const std::uint16_t magic = LittleEndian16(optional, 0);
  if (magic != kMagic32 && magic != kMagic64) return false;
  identity->image_timestamp = LittleEndian32(headers, kTimestampAt);
  identity->image_size = LittleEndian32(optional, kImageSizeAt);
  identity->image_base =
      magic == kMagic64 ? LittleEndian64(optional, 24) : LittleEndian32(optional, 28);
  identity->has_signature =
      HasCertificates(file, optional, magic == kMagic64 ? kCertificates64At : kCertificates32At);
  if (magic == kMagic64) {
    ReadBuildId(file, headers_at + kOptionalAt + optional_size,
                LittleEndian16(headers, kSectionCountAt), identity);
  }
  return true;
}

}  // namespace zul
