#include "package/extract.h"

#include <algorithm>
#include <utility>

#include "core/failure.h"
#include "core/file_layer.h"
#include "core/text.h"
#include "package/extraction_directory.h"
#include "package/payload_signatures.h"
#include "package/zip_extract.h"
#include "package/zip_scan.h"

namespace zul {

namespace {

bool HasZipExtension(const fs::Path& archive_path) {
  const std::string name = PathToUtf8(archive_path.filename());
  const std::size_t dot = name.rfind('.');
  return dot != std::string::npos && AsciiLower(std::string_view(name).substr(dot + 1)) == "zip";
}

/// The layout depends on the files at the top and in the top-level folders, and signatures are
/// those of programs and libraries.
bool IsLookedAt(std::string_view path) {
  return std::count(path.begin(), path.end(), '/') <= 1 || IsSignedFileName(PathOrEmpty(path));
}

bool Extract(const fs::Path& archive_path, const fs::Path& destination, ZipScanResult* scan,
             const fs::KeepAlive& keep_alive, ExtractionScope scope, std::string* error) {
  if (error != nullptr) error->clear();
  if (!HasZipExtension(archive_path)) return Fail(error, "Not a ZIP archive");
  if (destination.empty()) return Fail(error, "Destination directory is empty");
  const std::string archive = PathToUtf8(archive_path);
  bool accepted = false;
  // The open alone can take long, when a scanner reads the whole file first.
  RunKeepingAlive([&] { accepted = ScanZipArchive(archive, scan, error); }, keep_alive);
  if (!accepted) return false;
  fs::Path stage_dir;
  if (!CreateUniqueSiblingDirectory(destination, ".qorva-zip-stage", &stage_dir, error)) {
    return false;
  }
  if (CheckFreeSpaceForExtraction(stage_dir, scan->total_uncompressed_bytes, error) &&
      ExtractScannedEntries(archive, scan, stage_dir, error, keep_alive, std::move(scope)) &&
      CommitExtractionDirectory(stage_dir, destination, error, keep_alive)) {
    return true;
  }
  std::error_code ignored;
  fs::RemoveTree(stage_dir, ignored, keep_alive);
  return false;
}

}  // namespace

bool ExtractPackage(const fs::Path& archive_path, const fs::Path& destination, std::string* error,
                    const fs::KeepAlive& keep_alive) {
  ZipScanResult scan;
  return Extract(archive_path, destination, &scan, keep_alive, {}, error);
}

bool ExtractPackageToInspect(const fs::Path& archive_path, const fs::Path& destination,
                             ZipScanResult* scan, std::string* error) {
  return Extract(archive_path, destination, scan, {}, {.is_written = IsLookedAt, .flush = false},
                 error);
}

}  // namespace zul
