#include "package/zip_extract.h"

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/file_ops.h"
#include "core/text.h"
#include "package/extraction_directory.h"

namespace zul {

namespace {

constexpr std::string_view kSourceChanged = "ZIP source changed during extraction";

/// A file system with a journal writes the flushes of several threads together. More threads than
/// these gain nothing.
constexpr unsigned kFinishingThreads = 6;
/// The most files that are written and not yet closed.
constexpr std::size_t kUnfinishedFiles = 32;

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

bool CreateExclusively(ExclusiveFile& file, const fs::File& folder, std::string* error) {
  constexpr std::string_view kMessage = "cannot create extracted file exclusively: ";
  std::string detail;
  const int created = file.create(&detail, &folder);
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

/// Runs on another thread.
bool FlushAndClose(ExclusiveFile file, bool flush, std::string* error) {
  std::string detail;
  if (flush && !file.flush(&detail)) return Fail(error, "cannot flush extracted file: ", detail);
  if (!file.close(&detail)) return Fail(error, "cannot close extracted file: ", detail);
  file.release();
  return true;
}

/// The stage is held and resolved once: a folder that is held keeps its path.
bool HoldStage(const fs::Path& stage_dir, ExtractionPass& pass, std::string* error) {
  if (!pass.root.empty()) return true;
  std::error_code code;
  pass.stage = fs::HoldFolder(stage_dir, code);
  if (!code) pass.root = pass.stage.Whereabouts(code);
  return !code || Fail(error, "cannot resolve extraction root");
}

/// Systems that do not keep a held folder in its place may have moved it, and the files in it.
bool LeaveFolder(ExtractionPass& pass, std::string* error) {
  if (!pass.folder.is_open()) return true;
  std::error_code code;
  const fs::Path resolved = pass.folder.Whereabouts(code);
  pass.folder = {};
  return (!code && IsPathInsideRootFolded(pass.root, resolved / "file")) ||
         Fail(error, "extracted file resolved outside extraction root");
}

/// True when the folder is the one that is held, and nothing can have taken its place.
bool IsStillHeld(const fs::Path& folder, const ExtractionPass& pass) {
  return fs::HeldFoldersStay() && pass.folder.is_open() && folder == pass.folder_path;
}

/// Holds the folder of a file, which the files after it mostly share. Its files are created
/// relative to the handle, so that a link in its path cannot lead them elsewhere.
bool EnterFolder(const fs::Path& folder, ExtractionPass& pass, std::string* error) {
  if (pass.folder.is_open() && folder == pass.folder_path) return true;
  if (!LeaveFolder(pass, error)) return false;
  std::error_code code;
  pass.folder = fs::HoldFolder(folder, code);
  const fs::Path resolved = code ? fs::Path() : pass.folder.Whereabouts(code);
  if (code) return Fail(error, "cannot resolve extracted file path");
  pass.folder_path = folder;
  return IsPathInsideRootFolded(pass.root, resolved / "file") ||
         Fail(error, "ZIP entry escapes extraction root");
}

/// Takes the results that are ready, and waits until there is room for one more file or, with
/// `all`, until every file is finished. False after a failure.
bool TakeFinished(ExtractionPass& pass, bool all) {
  OrderedWork<ExtractionPass::Finished>& files = pass.finishing;
  while (files.full() || files.IsReady() || (all && !files.empty())) {
    ExtractionPass::Finished file = files.Take();
    if (!file.error.empty() && !pass.failed) pass.failed = std::move(file);
  }
  return !pass.failed;
}

/// False without a text when a file that was handed over has failed.
bool ExtractEntries(std::string_view archive_path, ZipScanResult* scan, const fs::Path& stage_dir,
                    ExtractionPass& pass, std::string* error) {
  ZipReader reader;
  if (!OpenZipReader(archive_path, &reader, error)) return false;
  std::uint64_t entry_count = 0;
  if (reader.DeclaredEntryCount(&entry_count) != kZipOk ||
      entry_count != scan->central_entry_count) {
    return Fail(error, kSourceChanged);
  }
  auto wanted = scan->entries.begin();
  ZipStatus status = reader.GoToFirstEntry();
  for (std::uint64_t index = 0; index < entry_count; ++index) {
    if (status != kZipOk) return Fail(error, kSourceChanged);
    if (pass.keep_alive) pass.keep_alive();
    if (wanted != scan->entries.end() && wanted->central_index == index) {
      ZipEntryRecord found;
      if (!ReadZipEntryRecord(reader, index, &found, error)) return false;
      if (!IsSameEntry(found, *wanted)) return Fail(error, kSourceChanged);
      if (!TakeFinished(pass, false)) return false;
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

}  // namespace

ExtractionPass::ExtractionPass(fs::KeepAlive called, ExtractionScope wanted)
    : keep_alive(std::move(called)),
      scope(std::move(wanted)),
      finishing(kFinishingThreads, kUnfinishedFiles, keep_alive) {}

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

  if (!HoldStage(stage_dir, pass, error)) return false;
  const auto relative_path = PathFromUtf8(record.path);
  const fs::Path target =
      relative_path ? (pass.root / *relative_path).lexically_normal() : fs::Path();
  if (!target.has_filename() || !IsPathInsideRootFolded(pass.root, target)) {
    return Fail(error, "ZIP entry escapes extraction root");
  }
  const fs::Path folder = target.parent_path();
  if (!IsStillHeld(folder, pass) &&
      !MakeParents(pass.root, record.path, &pass.created_dirs, error)) {
    return false;
  }
  if (!is_written) return ReadAndVerify(reader, record, pass, entry, error);
  ExclusiveFile file(PathToUtf8(target));
  if (!EnterFolder(folder, pass, error) || !CreateExclusively(file, pass.folder, error) ||
      !CopyData(reader, record, pass, &file, error) || !CloseAndVerify(entry, error)) {
    return false;
  }
  pass.finishing.Hand([file = std::move(file), &record, flush = pass.scope.flush]() mutable {
    ExtractionPass::Finished finished{&record, {}};
    static_cast<void>(FlushAndClose(std::move(file), flush, &finished.error));
    return finished;
  });
  return true;
}

bool ExtractScannedEntries(std::string_view archive_path, ZipScanResult* scan,
                           const fs::Path& stage_dir, std::string* error, fs::KeepAlive keep_alive,
                           ExtractionScope scope) {
  ExtractionPass pass(std::move(keep_alive), std::move(scope));
  const bool unpacked =
      ExtractEntries(archive_path, scan, stage_dir, pass, error) && LeaveFolder(pass, error);
  // The unfinished files come before an entry that failed, so that their failure is the first one.
  if (TakeFinished(pass, true)) return unpacked;
  scan->refused = RefusedEntry(*pass.failed->record);
  return Fail(error, pass.failed->error);
}

}  // namespace zul
