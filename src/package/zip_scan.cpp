#include "package/zip_scan.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <unordered_map>
#include <utility>

#include "core/failure.h"
#include "core/text.h"
#include "package/zip_names.h"

namespace zul {

namespace {

// ---------------------------------------------------------------------------------------------
// One entry

// General purpose bit flag, APPNOTE 4.4.4.
constexpr std::uint16_t kFlagEncrypted = 1u << 0;
constexpr std::uint16_t kFlagSizesInDescriptor = 1u << 3;
constexpr std::uint16_t kFlagMaskedHeaders = 1u << 13;  // the central directory is encrypted

constexpr std::uint16_t kMethodStored = 0;
constexpr std::uint16_t kMethodDeflated = 8;
constexpr std::uint16_t kMethodAes = 99;

constexpr std::uint16_t kExtraAes = 0x9901;
constexpr std::uint16_t kExtraUnicodePath = 0x7075;

bool HasExtraRecord(std::string_view extra, std::uint16_t id) {
  while (const auto record = TakeZipExtraRecord(&extra)) {
    if (record->id == id) return true;
  }
  return false;
}

// The method or an extra field declares AES encryption. The library sets the version only when it
// is built with decryption.
bool IsAesEncrypted(const ZipCentralHeader& header) {
  return header.aes_version != 0 || header.compression_method == kMethodAes ||
         HasExtraRecord(header.extra, kExtraAes);
}

// External attributes of Unix (APPNOTE 4.4.15): the upper half is st_mode.
bool IsUnixLink(const ZipCentralHeader& header) {
  constexpr std::uint32_t kUnix = 3;
  constexpr std::uint32_t kMacOs = 19;
  constexpr std::uint32_t kTypeMask = 0170000;
  constexpr std::uint32_t kLinkType = 0120000;
  const std::uint32_t system = header.version_made_by >> 8u;
  return (system == kUnix || system == kMacOs) &&
         (header.external_attributes >> 16u & kTypeMask) == kLinkType;
}

bool HasNoSizes(const ZipHeaderFields& header) {
  return header.crc32 == 0 && header.compressed_size == 0 && header.uncompressed_size == 0;
}

struct EntryName {
  std::string path;
  bool unicode_path_used = false;
  bool is_directory = false;
};

// The safe form of the name in a header; nothing for an unsafe name.
std::optional<EntryName> NameOf(const ZipHeaderFields& header) {
  DecodedZipName decoded = DecodeZipEntryName(header.name, header.extra);
  EntryName name;
  name.unicode_path_used = decoded.unicode_path_used;
  name.is_directory = IsZipDirectoryName(decoded.name);
  if (!NormalizeZipEntryPath(std::move(decoded.name), name.is_directory, &name.path))
    return std::nullopt;
  return name;
}

// The raw names of both headers are equal here. So the names can differ only if one header has a
// Unicode path; without one, there is no need to decode the local name.
bool AdoptLocalName(const ZipHeaderFields& local, ZipEntryRecord* record) {
  if (!record->unicode_path_used && !HasExtraRecord(local.extra, kExtraUnicodePath)) return true;
  std::optional<EntryName> name = NameOf(local);
  if (!name || name->is_directory != record->is_directory) return false;
  if (name->unicode_path_used == record->unicode_path_used) return name->path == record->path;
  if (name->unicode_path_used) {
    record->path = std::move(name->path);
    record->unicode_path_used = true;
  }
  return true;
}

}  // namespace

bool ReadZipEntryRecord(const ZipReader& reader, std::uint64_t index, ZipEntryRecord* record,
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

  record->path = std::move(name->path);
  record->raw_name = header.name;
  record->unicode_path_used = name->unicode_path_used;
  record->central_index = index;
  record->flags = header.flags;
  record->compression_method = header.compression_method;
  record->crc32 = header.crc32;
  record->disk_number = header.disk_number;
  record->compressed_size = header.compressed_size;
  record->uncompressed_size = header.uncompressed_size;
  record->local_header_offset = header.local_header_offset;
  record->is_directory = name->is_directory;
  record->is_link = IsUnixLink(header);
  return true;
}

bool CheckLocalHeader(const ZipReader& reader, ZipEntryRecord* record, std::string* error) {
  if (!reader.is_open()) return Fail(error, "ZIP reader has no active archive");
  const ZipHeaderFields* local = reader.local_header();
  if (!local || !local->name.data()) return Fail(error, "cannot read ZIP local header");
  if (local->compression_method != record->compression_method) {
    return Fail(error, "local header compression method does not match central directory");
  }
  if (local->flags != record->flags) {
    return Fail(error, "local header flags do not match central directory");
  }
  if (local->name != record->raw_name || !AdoptLocalName(*local, record)) {
    return Fail(error, "local header filename does not match central directory");
  }
  const bool sizes_follow = (record->flags & kFlagSizesInDescriptor) && HasNoSizes(*local);
  if (!sizes_follow &&
      (local->crc32 != record->crc32 || local->compressed_size != record->compressed_size ||
       local->uncompressed_size != record->uncompressed_size)) {
    return Fail(error, "local header sizes or CRC do not match central directory");
  }
  return true;
}

namespace {

// ---------------------------------------------------------------------------------------------
// The whole archive

// The length of the shortest central record (APPNOTE 4.3.12). It and the size of the file limit how
// many entries to reserve memory for; the declared count may be false.
constexpr std::uint64_t kCentralRecordBytesMin = 46;
constexpr std::uint64_t kRecordsReservedMax = 65536;

bool CheckArchive(const ZipReader& reader, std::uint64_t* entry_count, std::string* error) {
  if (!reader.is_open()) return Fail(error, "ZIP reader has no active archive");
  std::uint32_t disk_number = 0;
  if (reader.DiskWithCentralDirectory(&disk_number) != kZipOk || disk_number != 0) {
    return Fail(error, "multi-disk ZIP is not supported");
  }
  if (reader.DeclaredEntryCount(entry_count) != kZipOk) {
    return Fail(error, "cannot read ZIP entry count");
  }
  if (*entry_count > std::numeric_limits<std::size_t>::max() / sizeof(ZipEntryRecord)) {
    return Fail(error, "ZIP central directory has too many entries for this system");
  }
  return true;
}

bool ScanEntry(ZipReader& reader, std::uint64_t index, ZipEntryRecord* record, std::string* error) {
  if (!ReadZipEntryRecord(reader, index, record, error)) return false;
  const ZipStatus open_status = reader.OpenLocalHeader();
  if (open_status != kZipOk) {
    return Fail(error, "cannot open ZIP local entry: ", ZipStatusText(open_status));
  }
  const bool consistent = CheckLocalHeader(reader, record, error);
  const ZipStatus close_status = reader.CloseEntry();
  if (consistent && close_status != kZipOk) {
    return Fail(error, "cannot close ZIP local entry: ", ZipStatusText(close_status));
  }
  return consistent;
}

// True when two entries share bytes. No writer makes such archives; a small one can expand to any
// size.
bool HaveOverlap(std::vector<ZipExtent>& extents) {
  const auto by_begin = [](const ZipExtent& a, const ZipExtent& b) { return a.begin < b.begin; };
  if (!std::is_sorted(extents.begin(), extents.end(), by_begin)) {
    std::sort(extents.begin(), extents.end(), by_begin);
  }
  return std::adjacent_find(extents.begin(), extents.end(),
                            [](const ZipExtent& a, const ZipExtent& b) {
                              return b.begin < a.end;
                            }) != extents.end();
}

bool Refuse(const ZipReader& reader, std::uint64_t index, ZipScanResult* result) {
  ZipCentralHeader header;
  if (reader.CentralHeader(&header)) {
    result->refused = {index, DecodeZipEntryName(header.name, header.extra).name,
                       header.local_header_offset};
  }
  return false;
}

bool ScanEntries(ZipReader& reader, ZipScanResult* result, std::vector<ZipEntryRecord>* records,
                 std::string* error) {
  const std::uint64_t entry_count = result->central_entry_count;
  const auto room = static_cast<std::size_t>(
      std::min({entry_count, kRecordsReservedMax,
                static_cast<std::uint64_t>(reader.file_size()) / kCentralRecordBytesMin}));
  std::vector<ZipExtent> extents;
  extents.reserve(room);
  records->reserve(room);
  ZipStatus status = reader.GoToFirstEntry();
  for (std::uint64_t index = 0; index < entry_count; ++index) {
    if (status != kZipOk) return Fail(error, "ZIP central directory is incomplete");
    if (!ScanEntry(reader, index, &records->emplace_back(), error)) {
      return Refuse(reader, index, result);
    }
    extents.push_back(reader.extent());
    status = reader.GoToNextEntry();
  }
  if (status == kZipOk) return Fail(error, "ZIP entry count does not match central directory");
  if (status != kZipEndOfList) return Fail(error, "ZIP central directory is incomplete");
  if (HaveOverlap(extents)) {
    return Fail(error, "invalid ZIP central directory: ", ZipStatusText(kZipFormatError));
  }
  return true;
}

bool TakeFiles(std::vector<ZipEntryRecord> records, ZipScanResult* result, std::string* error) {
  std::erase_if(records, [](const ZipEntryRecord& record) { return record.is_directory; });
  for (const ZipEntryRecord& record : records) {
    const auto size = static_cast<std::uint64_t>(record.uncompressed_size);
    if (size > std::numeric_limits<std::uint64_t>::max() - result->total_uncompressed_bytes) {
      return Fail(error, "ZIP total uncompressed size overflows");
    }
    result->total_uncompressed_bytes += size;
  }
  result->entries = std::move(records);
  return true;
}

// The exact and the lower-cased spelling of a path. Both have the same length.
struct Spelling {
  std::string_view exact;
  std::string_view folded;

  [[nodiscard]] Spelling Prefix(std::size_t length) const {
    return {exact.substr(0, length), folded.substr(0, length)};
  }
};

class PathCollisions {
 public:
  explicit PathCollisions(const std::vector<ZipEntryRecord>& entries) : entries_(entries) {
    std::size_t folded_bytes = 0;
    for (const ZipEntryRecord& entry : entries) folded_bytes += entry.path.size();
    folded_.reserve(folded_bytes);  // keeps the views into it valid
    spellings_.reserve(entries.size());
    for (const ZipEntryRecord& entry : entries) {
      const std::size_t begin = folded_.size();
      for (const char c : entry.path) folded_.push_back(AsciiLower(c));
      spellings_.push_back({entry.path, std::string_view(folded_).substr(begin)});
    }
    is_directory_.reserve(entries.size());
    directory_spellings_.reserve(entries.size());
  }

  bool Check(std::string* error, std::size_t* at) {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      *at = i;
      if (!is_directory_.try_emplace(spellings_[i].folded, entries_[i].is_directory).second) {
        return Fail(error, "ZIP entry path collision");
      }
      if (!EnterParents(spellings_[i]) ||
          (entries_[i].is_directory && !EnterDirectory(spellings_[i]))) {
        return Fail(error, "ZIP directory path collision");
      }
    }
    // `directory_spellings_` has each parent directory once, so each is looked up once.
    for (const auto& [folded, exact] : directory_spellings_) {
      const auto entry = is_directory_.find(folded);
      if (entry != is_directory_.end() && !entry->second) {
        *at = IndexOf(folded);
        return Fail(error, "ZIP file path conflicts with a child entry");
      }
    }
    return true;
  }

 private:
  [[nodiscard]] std::size_t IndexOf(std::string_view folded) const {
    const auto has_path = [&](const Spelling& spelling) { return spelling.folded == folded; };
    const auto found = std::find_if(spellings_.begin(), spellings_.end(), has_path);
    return static_cast<std::size_t>(found - spellings_.begin());
  }

  bool EnterDirectory(const Spelling& path) {
    return directory_spellings_.try_emplace(path.folded, path.exact).first->second == path.exact;
  }

  // The parents of a directory that is already known are known too.
  bool EnterParents(const Spelling& path) {
    for (std::size_t slash = path.exact.rfind('/'); slash != std::string_view::npos && slash > 0;
         slash = path.exact.rfind('/', slash - 1)) {
      const Spelling parent = path.Prefix(slash);
      const auto [known, is_new] = directory_spellings_.try_emplace(parent.folded, parent.exact);
      if (known->second != parent.exact) return false;
      if (!is_new) break;
    }
    return true;
  }

  const std::vector<ZipEntryRecord>& entries_;
  std::string folded_;  // all lower-cased paths, concatenated
  std::vector<Spelling> spellings_;
  std::unordered_map<std::string_view, bool> is_directory_;
  std::unordered_map<std::string_view, std::string_view> directory_spellings_;
};

}  // namespace

ZipRefusedEntry RefusedEntry(const ZipEntryRecord& record) {
  return {record.central_index, record.path, record.local_header_offset};
}

bool CheckZipPathCollisions(const std::vector<ZipEntryRecord>& entries, std::string* error,
                            std::size_t* at) {
  std::size_t ignored = 0;
  return PathCollisions(entries).Check(error, at != nullptr ? at : &ignored);
}

bool ScanZipArchive(std::string_view archive_path, ZipScanResult* result, std::string* error) {
  *result = ZipScanResult();
  ZipReader reader;
  if (!OpenZipReader(archive_path, &reader, error)) return false;
  if (!CheckArchive(reader, &result->central_entry_count, error)) return false;
  std::vector<ZipEntryRecord> records;
  if (!ScanEntries(reader, result, &records, error)) return false;
  std::erase_if(records, [result](ZipEntryRecord& record) {
    if (!IsArchiveMetadataPath(record.path)) return false;
    if (!record.is_directory) result->skipped_paths.push_back(std::move(record.path));
    return true;
  });
  std::size_t at = 0;
  if (!CheckZipPathCollisions(records, error, &at)) {
    result->refused = RefusedEntry(records[at]);
    return false;
  }
  return TakeFiles(std::move(records), result, error);
}

}  // namespace zul
