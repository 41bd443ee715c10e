#include "package/zip_scan.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

#include "core/failure.h"
#include "core/text.h"
#include "package/zip_names.h"

namespace zul {

namespace {

// No record of the central directory is shorter (APPNOTE 4.3.12), so the file's size bounds how
// many there can be, whatever the archive declares. Room for more than any package has is not made
// in advance.
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

bool ScanEntry(ZipReader& reader, std::uint64_t index, ZipEntryRecord& record, std::string* error) {
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

// Entries that share bytes are how a small archive holds more than it could; no writer makes them.
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

bool ScanEntries(ZipReader& reader, std::uint64_t entry_count, std::vector<ZipEntryRecord>& records,
                 std::string* error) {
  const auto room = static_cast<std::size_t>(
      std::min({entry_count, kRecordsReservedMax,
                static_cast<std::uint64_t>(reader.file_size()) / kCentralRecordBytesMin}));
  std::vector<ZipExtent> extents;
  extents.reserve(room);
  records.reserve(room);
  ZipStatus status = reader.GoToFirstEntry();
  for (std::uint64_t index = 0; index < entry_count; ++index) {
    if (status != kZipOk) return Fail(error, "ZIP central directory is incomplete");
    if (!ScanEntry(reader, index, records.emplace_back(), error)) return false;
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

bool TakeFiles(std::vector<ZipEntryRecord>& records, ZipScanResult& result, std::string* error) {
  std::erase_if(records, [](const ZipEntryRecord& record) { return record.is_directory; });
  for (const ZipEntryRecord& record : records) {
    const auto size = static_cast<std::uint64_t>(record.uncompressed_size);
    if (size > std::numeric_limits<std::uint64_t>::max() - result.total_uncompressed_bytes) {
      return Fail(error, "ZIP total uncompressed size overflows");
    }
    result.total_uncompressed_bytes += size;
  }
  result.entries = std::move(records);
  return true;
}

// The exact and the folded spelling of a path, side by side: both have the same length.
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
    folded_.reserve(folded_bytes);  // the views into it stay valid
    spellings_.reserve(entries.size());
    for (const ZipEntryRecord& entry : entries) {
      const std::size_t begin = folded_.size();
      for (const char c : entry.path) folded_.push_back(AsciiLower(c));
      spellings_.push_back({entry.path, std::string_view(folded_).substr(begin)});
    }
    is_directory_.reserve(entries.size());
    directory_spellings_.reserve(entries.size());
  }

  bool Check(std::string* error) {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (!is_directory_.try_emplace(spellings_[i].folded, entries_[i].is_directory).second) {
        return Fail(error, "ZIP entry path collision");
      }
      if (!EnterParents(spellings_[i]) ||
          (entries_[i].is_directory && !EnterDirectory(spellings_[i]))) {
        return Fail(error, "ZIP directory path collision");
      }
    }
    // By now each directory above an entry is known once, so it is asked for once.
    for (const auto& [folded, exact] : directory_spellings_) {
      const auto entry = is_directory_.find(folded);
      if (entry != is_directory_.end() && !entry->second) {
        return Fail(error, "ZIP file path conflicts with a child entry");
      }
    }
    return true;
  }

 private:
  bool EnterDirectory(const Spelling& path) {
    return directory_spellings_.try_emplace(path.folded, path.exact).first->second == path.exact;
  }

  // A directory that is there in the same spelling brought its own parents along.
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
  std::string folded_;  // all folded paths, one behind the other
  std::vector<Spelling> spellings_;
  std::unordered_map<std::string_view, bool> is_directory_;
  std::unordered_map<std::string_view, std::string_view> directory_spellings_;
};

}  // namespace

bool CheckZipPathCollisions(const std::vector<ZipEntryRecord>& entries, std::string* error) {
  return PathCollisions(entries).Check(error);
}

bool ScanZipArchive(std::string_view archive_path, ZipScanResult& result, std::string* error) {
  result = ZipScanResult();
  ZipReader reader;
  if (!OpenZipReader(archive_path, reader, error)) return false;
  if (!CheckArchive(reader, &result.central_entry_count, error)) return false;
  std::vector<ZipEntryRecord> records;
  if (!ScanEntries(reader, result.central_entry_count, records, error)) return false;
  std::erase_if(records,
                [](const ZipEntryRecord& record) { return IsArchiveMetadataPath(record.path); });
  return CheckZipPathCollisions(records, error) && TakeFiles(records, result, error);
}

}  // namespace zul
