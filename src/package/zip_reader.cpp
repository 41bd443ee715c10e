#include "package/zip_reader.h"

#include <optional>
#include <utility>

// minizip-ng's headers use these without including them.
#include <mz.h>
#include <mz_strm.h>
#include <mz_zip.h>
#include <stdint.h>
#include <time.h>
#include <zlib.h>

#include "core/failure.h"
#include "core/text.h"
#include "package/zip_end_records.h"
#include "package/zip_names.h"
#include "package/zip_stream.h"

namespace zul {

namespace {

// Local file header, APPNOTE 4.3.7: the offsets of its fields, and its length without name and
// extra field.
constexpr std::uint32_t kLocalHeaderSignature = 0x04034B50;
constexpr std::size_t kLocalFlags = 6;
constexpr std::size_t kLocalMethod = 8;
constexpr std::size_t kLocalCrc = 14;
constexpr std::size_t kLocalCompressedSize = 18;
constexpr std::size_t kLocalUncompressedSize = 22;
constexpr std::size_t kLocalNameLength = 26;
constexpr std::size_t kLocalExtraLength = 28;
constexpr std::size_t kLocalHeaderBytes = 30;

// Zip64 extended information, APPNOTE 4.5.3: the 64-bit value of each size whose 32-bit field is
// all ones, in this order.
void ResolveZip64Sizes(ZipHeaderFields* header) {
  constexpr std::uint16_t kZip64Id = 1;
  std::string_view rest = header->extra;
  while (const auto record = TakeZipExtraRecord(&rest)) {
    if (record->id != kZip64Id) continue;
    std::string_view values = record->data;
    for (std::int64_t* size : {&header->uncompressed_size, &header->compressed_size}) {
      if (*size != UINT32_MAX || values.size() < 8) continue;
      *size = static_cast<std::int64_t>(LittleEndian64(values, 0));
      values.remove_prefix(8);
    }
  }
}

std::string_view Bytes(const void* data, std::size_t size) {
  return {static_cast<const char*>(data), data ? size : 0};
}

void TakeFields(const mz_zip_file& info, ZipHeaderFields* header) {
  header->flags = info.flag;
  header->compression_method = info.compression_method;
  header->crc32 = info.crc;
  header->compressed_size = info.compressed_size;
  header->uncompressed_size = info.uncompressed_size;
  header->name = Bytes(info.filename, info.filename_size);
  header->extra = Bytes(info.extrafield, info.extrafield_size);
}

}  // namespace

struct ZipReader::State {
  enum class Opened { kNothing, kLocalHeader, kData };

  ~State() { CloseArchive(); }

  void CloseArchive() {
    if (!zip) return;
    mz_zip_close(zip);
    mz_zip_delete(&zip);
  }

  const mz_zip_file* Entry() const {
    mz_zip_file* info = nullptr;
    return zip && mz_zip_entry_get_info(zip, &info) == MZ_OK ? info : nullptr;
  }

  ZipStatus Walked(ZipStatus status);
  ZipStatus ReadLocalHeader();
  ZipStatus CheckExtent(std::int64_t data_begin, std::int64_t compressed_size);

  ZipFileStream stream;
  void* zip = nullptr;
  ZipDirectoryWalk walked;  // set by GoToFirstEntry
  Opened opened = Opened::kNothing;
  ZipHeaderFields local;
  std::string local_bytes;  // name and extra field that ReadLocalHeader has read
  ZipExtent extent;
  std::uint32_t crc = 0;
  bool read_to_end = false;
};

// The library walks over the records that it finds. Whether they are the directory that the end
// records describe is known only at the end of the walk.
ZipStatus ZipReader::State::Walked(ZipStatus status) {
  if (status == kZipOk) ++walked.entries;
  if (status != kZipEndOfList) return status;
  walked.end = mz_zip_get_entry(zip);
  return ZipEndRecordsAgree(stream, walked) ? status : kZipFormatError;
}

// The library reads a local header only when it sets up a decompressor, which takes many times as
// long. So the scan reads the headers here.
ZipStatus ZipReader::State::ReadLocalHeader() {
  if (const ZipStatus status = mz_zip_entry_seek_local_header(zip); status != kZipOk) return status;
  extent.begin = stream.position();
  char bytes[kLocalHeaderBytes];
  if (const ZipStatus status = stream.ReadExactly(bytes, sizeof bytes); status != kZipOk) {
    return status;
  }
  const std::string_view fixed(bytes, sizeof bytes);
  if (LittleEndian32(fixed, 0) != kLocalHeaderSignature) return kZipFormatError;
  local.flags = LittleEndian16(fixed, kLocalFlags);
  local.compression_method = LittleEndian16(fixed, kLocalMethod);
  local.crc32 = LittleEndian32(fixed, kLocalCrc);
  local.compressed_size = LittleEndian32(fixed, kLocalCompressedSize);
  local.uncompressed_size = LittleEndian32(fixed, kLocalUncompressedSize);
  const std::size_t name_length = LittleEndian16(fixed, kLocalNameLength);
  local_bytes.resize(name_length + LittleEndian16(fixed, kLocalExtraLength));
  if (const ZipStatus status =
          stream.ReadExactly(local_bytes.data(), static_cast<std::int32_t>(local_bytes.size()));
      status != kZipOk) {
    return status;
  }
  local.name = std::string_view(local_bytes).substr(0, name_length);
  local.extra = std::string_view(local_bytes).substr(name_length);
  ResolveZip64Sizes(&local);
  return kZipOk;
}

// An entry must end before the central directory begins.
ZipStatus ZipReader::State::CheckExtent(std::int64_t data_begin, std::int64_t compressed_size) {
  if (data_begin > walked.begin || compressed_size > walked.begin - data_begin) {
    return kZipFormatError;
  }
  extent.end = data_begin + compressed_size;
  return kZipOk;
}

ZipReader::ZipReader() = default;
ZipReader::~ZipReader() = default;
ZipReader::ZipReader(ZipReader&&) noexcept = default;
ZipReader& ZipReader::operator=(ZipReader&&) noexcept = default;

// The library's own reader interface is not used: it inflates an entry with a special name into
// memory before the entry can be checked, and it opens other files as further disks of the archive.
ZipStatus ZipReader::Open(std::string_view utf8_path) {
  state_ = std::make_unique<State>();
  ZipStatus status = state_->stream.Open(PathOrEmpty(utf8_path));
  if (status != kZipOk) return status;
  state_->zip = mz_zip_create();
  if (!state_->zip) return kZipMemoryError;
  mz_zip_set_recover(state_->zip, 0);
  status = mz_zip_open(state_->zip, state_->stream.library_stream(), MZ_OPEN_MODE_READ);
  if (status != kZipOk) state_->CloseArchive();
  return status;
}

bool ZipReader::is_open() const {
  return state_ && state_->zip;
}

bool ZipReader::HasZipEndRecord() {
  return state_ && HasExactZipEndRecord(state_->stream);
}

std::int64_t ZipReader::file_size() const {
  return state_ ? state_->stream.size() : 0;
}

ZipStatus ZipReader::DeclaredEntryCount(std::uint64_t* count) const {
  return is_open() ? mz_zip_get_number_entry(state_->zip, count) : kZipBadParameter;
}

ZipStatus ZipReader::DiskWithCentralDirectory(std::uint32_t* disk_number) const {
  return is_open() ? mz_zip_get_disk_number_with_cd(state_->zip, disk_number) : kZipBadParameter;
}

ZipStatus ZipReader::GoToFirstEntry() {
  if (!is_open()) return kZipBadParameter;
  const ZipStatus status = mz_zip_goto_first_entry(state_->zip);
  state_->walked = {.begin = mz_zip_get_entry(state_->zip)};
  return state_->Walked(status);
}

ZipStatus ZipReader::GoToNextEntry() {
  if (!is_open()) return kZipBadParameter;
  return state_->Walked(mz_zip_goto_next_entry(state_->zip));
}

bool ZipReader::CentralHeader(ZipCentralHeader* header) const {
  const mz_zip_file* info = is_open() ? state_->Entry() : nullptr;
  if (!info || !info->filename) return false;
  TakeFields(*info, header);
  header->aes_version = info->aes_version;
  header->version_made_by = info->version_madeby;
  header->external_attributes = info->external_fa;
  header->disk_number = info->disk_number;
  header->local_header_offset = info->disk_offset;
  return true;
}

ZipStatus ZipReader::OpenLocalHeader() {
  const mz_zip_file* entry = is_open() ? state_->Entry() : nullptr;
  if (!entry) return kZipBadParameter;
  ZipStatus status = state_->ReadLocalHeader();
  if (status == kZipOk) {
    status = state_->CheckExtent(state_->stream.position(), entry->compressed_size);
  }
  if (status == kZipOk) state_->opened = State::Opened::kLocalHeader;
  return status;
}

ZipStatus ZipReader::OpenEntry() {
  const mz_zip_file* entry = is_open() ? state_->Entry() : nullptr;
  if (!entry) return kZipBadParameter;
  ZipStatus status = mz_zip_entry_read_open(state_->zip, 0, nullptr);
  if (status != kZipOk) return status;
  state_->opened = State::Opened::kData;
  state_->crc = 0;
  state_->read_to_end = false;
  mz_zip_file* local = nullptr;
  status = mz_zip_entry_get_local_info(state_->zip, &local);
  if (status == kZipOk) {
    TakeFields(*local, &state_->local);
    status = state_->CheckExtent(state_->stream.position(), entry->compressed_size);
  }
  if (status != kZipOk) static_cast<void>(CloseEntry());
  return status;
}

const ZipHeaderFields* ZipReader::local_header() const {
  return state_ && state_->opened != State::Opened::kNothing ? &state_->local : nullptr;
}

ZipExtent ZipReader::extent() const {
  return state_ ? state_->extent : ZipExtent();
}

std::int32_t ZipReader::ReadEntry(void* buffer, std::int32_t size_bytes) {
  if (!is_open() || state_->opened != State::Opened::kData) return kZipBadParameter;
  const std::int32_t read = mz_zip_entry_read(state_->zip, buffer, size_bytes);
  if (read == 0) state_->read_to_end = true;
  if (read > 0) {
    state_->crc = static_cast<std::uint32_t>(
        crc32(state_->crc, static_cast<const Bytef*>(buffer), static_cast<uInt>(read)));
  }
  return read;
}

ZipStatus ZipReader::CloseEntry() {
  if (!is_open() || state_->opened == State::Opened::kNothing) return kZipBadParameter;
  const auto opened = std::exchange(state_->opened, State::Opened::kNothing);
  if (opened == State::Opened::kLocalHeader) return kZipOk;
  void* decompressor = nullptr;
  std::int64_t bytes_taken = 0;
  if (mz_zip_entry_get_compress_stream(state_->zip, &decompressor) == MZ_OK) {
    mz_stream_get_prop_int64(decompressor, MZ_STREAM_PROP_TOTAL_IN, &bytes_taken);
  }
  const ZipStatus status = mz_zip_entry_close(state_->zip);
  const mz_zip_file* entry = state_->Entry();
  if (status != kZipOk || !state_->read_to_end || !entry) return status;
  if (state_->crc != entry->crc) return kZipCrcError;
  return bytes_taken == entry->compressed_size ? kZipOk : kZipDataError;
}

bool OpenZipReader(std::string_view archive_path, ZipReader* reader, std::string* error) {
  *reader = ZipReader();
  const ZipStatus status = reader->Open(archive_path);
  if (status == kZipOk) return true;
  if (status == kZipMemoryError) return Fail(error, "cannot allocate ZIP reader");
  if (status == kZipOpenError) return Fail(error, "cannot open ZIP");
  if (!reader->HasZipEndRecord()) return Fail(error, "ZIP end record not found");
  return Fail(error, "invalid ZIP central directory: ", ZipStatusText(status));
}

}  // namespace zul
