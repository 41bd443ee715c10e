// The scan of an archive with its extraction, over an older tree for every other size.
// Input: an archive, taken as it stands and once more with its checksums mended.

#include <sys/resource.h>
#include <zlib.h>

#include <algorithm>
#include <set>

#include "core/text.h"
#include "package/extract.h"
#include "package/zip_names.h"
#include "package/zip_scan.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/fuzz/mend_zip.h"
#include "tests/support/temp_folder.h"

namespace zul::fuzz {

namespace {

constexpr std::uint64_t kDeclaredBytesMax = std::uint64_t{16} << 20;

// The destination lies some levels deep, so that what climbs out of it still shows in the listing.
struct Scratch {
  test::TempFolder folder;
  fs::Path archive = folder / "a/b/package.zip";
  fs::Path out = folder / "a/b/out";
  fs::Path destination = out / "stage";
};

// While one lives, a write that takes a file far past what the largest entry declares ends the
// process (SIGXFSZ). The slack is for what the fuzzer itself may have to write meanwhile.
class WriteLimit {
 public:
  explicit WriteLimit(const ZipScanResult& scan) {
    std::int64_t bytes = kSlackBytes;
    for (const ZipEntryRecord& entry : scan.entries) {
      bytes = std::max(bytes, entry.uncompressed_size + kSlackBytes);
    }
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit = {static_cast<rlim_t>(bytes), before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~WriteLimit() { setrlimit(RLIMIT_FSIZE, &before_); }
  WriteLimit(const WriteLimit&) = delete;
  WriteLimit& operator=(const WriteLimit&) = delete;

 private:
  static constexpr std::int64_t kSlackBytes = 65536;
  rlimit before_{};
};

// What ListTree shows when exactly the files of `scan` were extracted.
std::string ExpectedTree(const ZipScanResult& scan) {
  const std::string destination = "a/b/out/stage/";
  std::set<std::string> lines = {"a/", "a/b/", "a/b/out/", "a/b/package.zip", destination};
  for (const ZipEntryRecord& entry : scan.entries) {
    lines.insert(destination + entry.path);
    for (std::size_t slash = entry.path.find('/'); slash != std::string::npos;
         slash = entry.path.find('/', slash + 1)) {
      lines.insert(destination + entry.path.substr(0, slash + 1));
    }
  }
  std::string tree;
  for (const std::string& line : lines) tree += line + "\n";
  return tree;
}

void RequireFiles(const Scratch& scratch, const ZipScanResult& scan) {
  Require(CheckZipPathCollisions(scan.entries, nullptr), "no two files meet");
  std::uint64_t total_bytes = 0;
  for (const ZipEntryRecord& entry : scan.entries) {
    std::string again;
    Require(!entry.is_directory && NormalizeZipEntryPath(entry.path, false, again) &&
                again == entry.path,
            "what is extracted is a file with a safe name");
    const std::string contents = test::ReadFile(scratch.destination / *PathFromUtf8(entry.path));
    Require(contents.size() == static_cast<std::uint64_t>(entry.uncompressed_size),
            "each file has the size that was declared");
    Require(crc32(0, reinterpret_cast<const Bytef*>(contents.data()),
                  static_cast<uInt>(contents.size())) == entry.crc32,
            "each file has the CRC that was declared");
    total_bytes += contents.size();
  }
  Require(total_bytes == scan.total_uncompressed_bytes, "the total is that of the scan");
}

void ScanAndExtract(const Scratch& scratch, std::string_view archive) {
  test::WriteFile(scratch.archive, archive);
  ZipScanResult scan;
  std::string error;
  const bool accepted = ScanZipArchive(PathToUtf8(scratch.archive), scan, &error);
  if (!accepted) scan = ZipScanResult();
  if (scan.total_uncompressed_bytes > kDeclaredBytesMax) return;

  std::error_code ec;
  Require(fs::CreateDirectories(scratch.out, ec), "the scratch folder can be made");
  if (archive.size() % 2 == 1) test::WriteFile(scratch.destination / "old.txt", "old");
  const std::string before = test::ListTree(scratch.folder.path());
  bool extracted = false;
  {
    const WriteLimit limit(scan);
    extracted = ExtractPackage(scratch.archive, scratch.destination, &error);
  }
  const std::string after = test::ListTree(scratch.folder.path());
  Require(extracted == error.empty(), "a failure has a reason and a success has none");
  Require(accepted || !extracted, "what the scan refuses is not extracted");
  Require(extracted || after == before, "a failure changes nothing anywhere");
  Require(!extracted || after == ExpectedTree(scan), "exactly the judged files are extracted");
  if (extracted) RequireFiles(scratch, scan);
  Require(fs::RemoveTree(scratch.destination, ec), "the scratch folder can be emptied");
}

}  // namespace

void Run(std::string_view input) {
  static const Scratch scratch;
  ScanAndExtract(scratch, input);
  const std::string mended = MendZip(input);
  if (mended != input) ScanAndExtract(scratch, mended);
}

}  // namespace zul::fuzz
