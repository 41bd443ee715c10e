#include "package/zip_extract.h"

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/file_ops.h"
#include "core/text.h"
#include "package/extraction_directory.h"

namespace zul {

namespace {

constexpr std::string_view kSourceChanged = "ZIP source changed during extraction";

bool IsSameEntry(const ZipEntryRecord& a, const ZipEntryRecord& b) {
  return a.central_index == b.central_index && a.raw_name == b.raw_name && a.flags == b.flags &&
         a.compression_method == b.compression_method && a.crc32 == b.crc32 &&
         a.disk_number == b.disk_number && a.compressed_size == b.compressed_size &&
         a.uncompressed_size == b.uncompressed_size &&
         a.local_header_offset == b.local_header_offset && a.is_directory == b.is_directory;
}

// Closes the entry on every return. The status matters only after a complete read.
class OpenedEntry {
 public:
  explicit OpenedEntry(ZipReader& reader) : reader_(reader) {}
  ~OpenedEntry() {
    if (open_) static_cast<void>(reader_.CloseEntry());
  }
  OpenedEntry(const OpenedEntry&) = delete;
  OpenedEntry& operator=(const OpenedEntry&) = delete;

  [[nodiscard]] ZipStatus Close() {
    open_ = false;
    return reader_.CloseEntry();
  }

 private:
  ZipReader& reader_;
  bool open_ = true;
};

bool MakeParents(const fs::Path& root, std::string_view relative_path,
                 std::unordered_set<std::string>* created_dirs, std::string* error) {
  for (std::size_t slash = relative_path.find('/'); slash != std::string_view::npos;
       slash = relative_path.find('/', slash + 1)) {
    std::string key(relative_path.substr(0, slash));
    const auto relative_directory = PathFromUtf8(key);
    if (!relative_directory) return Fail(error, "ZIP entry escapes extraction root");
    const fs::Path directory = (root / *relative_directory).lexically_normal();
    std::error_code code;
    if (created_dirs->contains(key)) {
      if (fs::KindOf(directory, fs::Links::kDoNotFollow, code) != fs::EntryKind::kDirectory) {
        return Fail(error, "ZIP extraction directory identity changed");
      }
      continue;
    }
    switch (fs::CreateDirectoryOnce(directory, code)) {
      case fs::CreateResult::kCreated:
        created_dirs->insert(std::move(key));
        break;
      case fs::CreateResult::kExisted:
        return Fail(error, "ZIP directory path collision on target filesystem");
      case fs::CreateResult::kFailed:
        return Fail(error, "cannot create extraction directory: ", code);
    }
  }
  return true;
}

bool CreateExclusively(ExclusiveFile& file, std::string* error) {
  constexpr std::string_view kMessage = "cannot create extracted file exclusively: ";
  std::string detail;
  const int created = file.create(&detail);
  if (created == 0) return true;
  return Fail(error, kMessage, created == 1 ? std::string_view("path already exists") : detail);
}

// Copies the open entry's data, never past its declared size. Without a file it only reads the
// data.
bool CopyData(ZipReader& reader, const ZipEntryRecord& record, const ExtractionPass& pass,
              ExclusiveFile* file, std::string* error) {
  std::byte* const buffer = pass.buffer.get();
  const auto expected = static_cast<std::uint64_t>(record.uncompressed_size);
  std::uint64_t total = 0;
  for (;;) {
    const std::int32_t read =
        reader.ReadEntry(buffer, static_cast<std::int32_t>(ExtractionPass::kBufferBytes));
    if (read < 0) {
      return Fail(
          error,
          record.compression_method == 8 ? "ZIP inflate failed: " : "ZIP entry read failed: ",
          ZipStatusText(read));
    }
    if (read == 0) break;
    const auto chunk = static_cast<std::uint64_t>(read);
    if (chunk > expected - total) {
      return Fail(error, "ZIP entry output exceeds declared uncompressed size");
    }
    std::string detail;
    if (file != nullptr && !file->write(buffer, static_cast<std::size_t>(chunk), &detail)) {
      return Fail(error, "cannot write extracted file: ", detail);
    }
    total += chunk;
    if (pass.keep_alive) pass.keep_alive();
  }
  return total == expected || Fail(error, "ZIP entry output size mismatch");
}

bool CloseAndVerify(OpenedEntry& entry, std::string* error) {
  const ZipStatus status = entry.Close();
  if (status == kZipOk) return true;
  if (status == kZipCrcError) return Fail(error, "ZIP entry CRC mismatch");
  return Fail(error, "ZIP entry close failed: ", ZipStatusText(status));
}

bool ReadAndVerify(ZipReader& reader, const ZipEntryRecord& record, const ExtractionPass& pass,
                   OpenedEntry& entry, std::string* error) {
  return CopyData(reader, record, pass, nullptr, error) && CloseAndVerify(entry, error);
}

/// True when this pass created the folder of the entry, so that its path was checked. An entry that
/// is not written then needs no further look at the disk, which would cost as much as its data.
bool HasItsFolder(const ZipEntryRecord& record, const ExtractionPass& pass) {
  const std::size_t slash = record.path.rfind('/');
  return slash != std::string::npos && pass.created_dirs.contains(record.path.substr(0, slash));
}

bool FlushAndClose(ExclusiveFile& file, const ZipEntryRecord& record, const ExtractionPass& pass,
                   const fs::Path& root, std::string* error) {
  const bool is_long = static_cast<std::uint64_t>(record.uncompressed_size) >= fs::kLongFlushBytes;
  std::string detail;
  bool flushed = !pass.scope.flush;
  if (!flushed) {
    RunKeepingAlive([&] { flushed = file.flush(&detail); },
                    is_long ? pass.keep_alive : fs::KeepAlive());
  }
  if (!flushed) return Fail(error, "cannot flush extracted file: ", detail);
  // Asks the open file for its location: the path may name another file by now.
  std::error_code code;
  const fs::Path resolved = file.whereabouts(code);
  if (!file.close(&detail)) return Fail(error, "cannot close extracted file: ", detail);
  return (!code && IsPathInsideRootFolded(root, resolved)) ||
         Fail(error, "extracted file resolved outside extraction root");
}

/// The current resolved path of the stage. The folder stays open for the pass to save an open per
/// entry.
fs::Path ResolveStage(const fs::Path& stage_dir, ExtractionPass& pass, std::error_code& code) {
  if (!pass.stage.is_open()) pass.stage = fs::OpenFolder(stage_dir, code);
  return pass.stage.is_open() ? pass.stage.Whereabouts(code) : fs::Path();
}

}  // namespace

bool ExtractOneEntry(ZipReader& reader, const ZipEntryRecord& record, const fs::Path& stage_dir,
                     ExtractionPass& pass, std::string* error) {
  const ZipStatus open_status = reader.OpenEntry();
  if (open_status != kZipOk) {
    return Fail(error, "cannot open ZIP entry: ", ZipStatusText(open_status));
  }
  OpenedEntry entry(reader);
  ZipEntryRecord checked = record;
  if (!CheckLocalHeader(reader, &checked, error)) return false;

  const bool is_written = !pass.scope.is_written || pass.scope.is_written(record.path);
  if (!is_written && HasItsFolder(record, pass)) {
    return ReadAndVerify(reader, record, pass, entry, error);
  }

  std::error_code code;
  const fs::Path root = ResolveStage(stage_dir, pass, code);
  if (code) return Fail(error, "cannot resolve extraction root");
  const auto relative_path = PathFromUtf8(record.path);
  const fs::Path target = relative_path ? (root / *relative_path).lexically_normal() : fs::Path();
  if (!target.has_filename() || !IsPathInsideRootFolded(root, target)) {
    return Fail(error, "ZIP entry escapes extraction root");
  }
  if (!MakeParents(root, record.path, &pass.created_dirs, error)) return false;
  if (!is_written) return ReadAndVerify(reader, record, pass, entry, error);
  // Resolving the folder is enough: the exclusive creation below fails if the file's name exists.
  // The resolution of a missing name is slower, because it may list the folder.
  const fs::Path resolved_parent = fs::Canonical(target.parent_path(), code);
  if (code) return Fail(error, "cannot resolve extracted file path");
  if (!IsPathInsideRootFolded(root, resolved_parent / target.filename())) {
    return Fail(error, "ZIP entry escapes extraction root");
  }

  ExclusiveFile file(PathToUtf8(target));
  if (!CreateExclusively(file, error) || !CopyData(reader, record, pass, &file, error) ||
      !CloseAndVerify(entry, error) || !FlushAndClose(file, record, pass, root, error)) {
    return false;
  }
  file.release();
  return true;
}

bool ExtractScannedEntries(std::string_view archive_path, ZipScanResult* scan,
                           const fs::Path& stage_dir, std::string* error, fs::KeepAlive keep_alive,
                           ExtractionScope scope) {
  ZipReader reader;
  if (!OpenZipReader(archive_path, &reader, error)) return false;
  std::uint64_t entry_count = 0;
  if (reader.DeclaredEntryCount(&entry_count) != kZipOk ||
      entry_count != scan->central_entry_count) {
    return Fail(error, kSourceChanged);
  }
  ExtractionPass pass;
  pass.keep_alive = std::move(keep_alive);
  pass.scope = std::move(scope);
  auto wanted = scan->entries.begin();
  ZipStatus status = reader.GoToFirstEntry();
  for (std::uint64_t index = 0; index < entry_count; ++index) {
    if (status != kZipOk) return Fail(error, kSourceChanged);
    if (pass.keep_alive) pass.keep_alive();
    if (wanted != scan->entries.end() && wanted->central_index == index) {
      ZipEntryRecord found;
      if (!ReadZipEntryRecord(reader, index, &found, error)) return false;
      if (!IsSameEntry(found, *wanted)) return Fail(error, kSourceChanged);
      if (!ExtractOneEntry(reader, *wanted, stage_dir, pass, error)) {
        scan->refused = RefusedEntry(*wanted);
        return false;
      }
      ++wanted;
    }
    status = reader.GoToNextEntry();
  }
  return (wanted == scan->entries.end() && status == kZipEndOfList) || Fail(error, kSourceChanged);
}

}  // namespace zul
