#include "package/zip_entry.h"

#include <optional>
#include <utility>

#include "core/failure.h"
#include "package/zip_names.h"

namespace zul {

namespace {

// General purpose bit flag, APPNOTE 4.4.4.
constexpr std::uint16_t kFlagEncrypted = 1u << 0;
constexpr std::uint16_t kFlagSizesInDescriptor = 1u << 3;
constexpr std::uint16_t kFlagMaskedHeaders = 1u
                                             << 13;  // set when the central directory is encrypted

constexpr std::uint16_t kMethodStored = 0;
constexpr std::uint16_t kMethodDeflated = 8;
constexpr std::uint16_t kMethodAes = 99;

constexpr std::uint16_t kExtraAes = 0x9901;
constexpr std::uint16_t kExtraUnicodePath = 0x7075;

bool HasExtraRecord(std::string_view extra, std::uint16_t id) {
  while (const auto record = TakeZipExtraRecord(extra)) {
    if (record->id == id) return true;
  }
  return false;
}

// AES encryption shows in the method and in this extra field; the library fills the version only
// when it was built to decrypt.
bool IsAesEncrypted(const ZipCentralHeader& header) {
  return header.aes_version != 0 || header.compression_method == kMethodAes ||
         HasExtraRecord(header.extra, kExtraAes);
}

bool HasNoSizes(const ZipHeaderFields& header) {
  return header.crc32 == 0 && header.compressed_size == 0 && header.uncompressed_size == 0;
}

struct EntryName {
  std::string path;
  bool unicode_path_used = false;
  bool is_directory = false;
};

// Nothing for an unsafe name.
std::optional<EntryName> NameOf(const ZipHeaderFields& header) {
  DecodedZipName decoded = DecodeZipEntryName(header.name, header.extra);
  EntryName name;
  name.unicode_path_used = decoded.unicode_path_used;
  name.is_directory = IsZipDirectoryName(decoded.name);
  if (!NormalizeZipEntryPath(std::move(decoded.name), name.is_directory, name.path))
    return std::nullopt;
  return name;
}

// The raw names are equal. So the two headers can name the file differently only where one of them
// has a Unicode path; elsewhere the local reading would be the central one over again.
bool AdoptLocalName(const ZipHeaderFields& local, ZipEntryRecord& record) {
  if (!record.unicode_path_used && !HasExtraRecord(local.extra, kExtraUnicodePath)) return true;
  std::optional<EntryName> name = NameOf(local);
  if (!name || name->is_directory != record.is_directory) return false;
  if (name->unicode_path_used == record.unicode_path_used) return name->path == record.path;
  if (name->unicode_path_used) {
    record.path = std::move(name->path);
    record.unicode_path_used = true;
  }
  return true;
}

}  // namespace

bool ReadZipEntryRecord(const ZipReader& reader, std::uint64_t index, ZipEntryRecord& record,
                        std::string* error) {
  ZipCentralHeader header;
  if (!reader.CentralHeader(&header)) {
    return Fail(error, "cannot read ZIP central directory entry");
  }
  if (header.compressed_size < 0 || header.uncompressed_size < 0 ||
      header.local_header_offset < 0) {
    return Fail(error, "ZIP entry contains a negative size or offset");
  }
  if (header.disk_number != 0) return Fail(error, "multi-disk ZIP is not supported");
  if (header.flags & kFlagMaskedHeaders) {
    return Fail(error, "encrypted ZIP central directory is not supported");
  }
  if ((header.flags & kFlagEncrypted) || IsAesEncrypted(header)) {
    return Fail(error, "encrypted ZIP entries are not supported");
  }
  if (header.compression_method != kMethodStored && header.compression_method != kMethodDeflated) {
    return Fail(error, "unsupported ZIP compression method");
  }
  std::optional<EntryName> name = NameOf(header);
  if (!name) return Fail(error, "unsafe ZIP entry path");

  record.path = std::move(name->path);
  record.raw_name = header.name;
  record.unicode_path_used = name->unicode_path_used;
  record.central_index = index;
  record.flags = header.flags;
  record.compression_method = header.compression_method;
  record.crc32 = header.crc32;
  record.disk_number = header.disk_number;
  record.compressed_size = header.compressed_size;
  record.uncompressed_size = header.uncompressed_size;
  record.local_header_offset = header.local_header_offset;
  record.is_directory = name->is_directory;
  return true;
}

bool CheckLocalHeader(const ZipReader& reader, ZipEntryRecord& record, std::string* error) {
  if (!reader.is_open()) return Fail(error, "ZIP reader has no active archive");
  const ZipHeaderFields* local = reader.local_header();
  if (!local || !local->name.data()) return Fail(error, "cannot read ZIP local header");
  if (local->compression_method != record.compression_method) {
    return Fail(error, "local header compression method does not match central directory");
  }
  if (local->flags != record.flags) {
    return Fail(error, "local header flags do not match central directory");
  }
  if (local->name != record.raw_name || !AdoptLocalName(*local, record)) {
    return Fail(error, "local header filename does not match central directory");
  }
  const bool sizes_follow = (record.flags & kFlagSizesInDescriptor) && HasNoSizes(*local);
  if (!sizes_follow &&
      (local->crc32 != record.crc32 || local->compressed_size != record.compressed_size ||
       local->uncompressed_size != record.uncompressed_size)) {
    return Fail(error, "local header sizes or CRC do not match central directory");
  }
  return true;
}

}  // namespace zul
