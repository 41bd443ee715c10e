// The scan of an archive and its extraction, for every second input over an older tree.
// Input: an archive. It is taken as it is, and again with repaired headers.

#include <cstddef>
#include <cstring>
#include <string>
#include <utility>

#include "core/text.h"
#include "package/extract.h"
#include "package/zip_names.h"
#include "package/zip_scan.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/temp_folder.h"
#include "tests/support/zip_builder.h"

namespace zul::fuzz {

namespace {

constexpr std::uint64_t kDeclaredBytesMax = std::uint64_t{16} << 20;

/// What a local header (APPNOTE 4.3.7) and a central record (4.3.12) have in common, from the flags
/// on. Little-endian, as this machine.
struct SharedFields {
  std::uint16_t flags, method;
  std::uint32_t time_and_date, crc, compressed_size, uncompressed_size;
  std::uint16_t name_length, extra_length;
};
constexpr std::size_t kUpToSizes = offsetof(SharedFields, name_length);

constexpr std::size_t kLocalBytes = 30;
constexpr std::size_t kLocalShared = 6;
constexpr std::size_t kCentralBytes = 46;
constexpr std::size_t kCentralShared = 8;
constexpr std::size_t kCentralLocalOffset = 42;

template <typename Value>
Value ReadAt(const std::string& bytes, std::size_t at) {
  Value value;
  std::memcpy(&value, &bytes[at], sizeof value);
  return value;
}

/// Makes the local header of the record at `central` repeat the record, and both state the CRC and
/// size of stored data.
void RepairEntry(std::string& bytes, std::size_t central) {
  auto fields = ReadAt<SharedFields>(bytes, central + kCentralShared);
  const auto local = ReadAt<std::uint32_t>(bytes, central + kCentralLocalOffset);
  if (local > central || central - local < kLocalBytes) return;
  const auto before = ReadAt<SharedFields>(bytes, local + kLocalShared);
  const std::size_t data = local + kLocalBytes + before.name_length + before.extra_length;
  if (data > central || central - data < fields.compressed_size) return;
  if (fields.method == 0) {
    fields.uncompressed_size = fields.compressed_size;
    fields.crc = test::Crc32(bytes.substr(data, fields.compressed_size));
  }
  std::memcpy(&bytes[central + kCentralShared], &fields, kUpToSizes);
  std::memcpy(&bytes[local + kLocalShared], &fields, kUpToSizes);
  if (fields.name_length == before.name_length) {
    bytes.replace(local + kLocalBytes, fields.name_length, bytes, central + kCentralBytes,
                  fields.name_length);
  }
}

/// Repaired, most mutated archives pass the comparison of their headers, so that the fuzzer reaches
/// the code after it. Deflated data keeps its CRC.
std::string Repaired(std::string_view archive) {
  constexpr std::string_view kSignature = "PK\x01\x02";
  std::string bytes(archive);
  for (std::size_t at = bytes.find(kSignature);
       at != bytes.npos && bytes.size() - at >= kCentralBytes;
       at = bytes.find(kSignature, at + kCentralBytes)) {
    RepairEntry(bytes, at);
  }
  return bytes;
}

void RequireFiles(test::Files files, const ZipScanResult& scan) {
  Require(CheckZipPathCollisions(scan.entries, nullptr), "no two files collide");
  std::uint64_t total_bytes = 0;
  for (const ZipEntryRecord& entry : scan.entries) {
    std::string again;
    const bool is_safe = NormalizeZipEntryPath(entry.path, false, &again) && again == entry.path;
    Require(is_safe && !entry.is_directory, "what is extracted is a file with a safe name");
    const auto file = files.extract("a/b/stage/" + entry.path);
    Require(!file.empty(), "each file of the scan is extracted");
    const std::uint64_t size = file.mapped().size();
    Require(std::cmp_equal(size, entry.uncompressed_size), "each file has its declared size");
    Require(test::Crc32(file.mapped()) == entry.crc32, "each file has its declared CRC");
    total_bytes += size;
  }
  Require(files.size() == 1 && files.contains("a/b/package.zip"), "no other file is extracted");
  Require(total_bytes == scan.total_uncompressed_bytes, "the total is that of the scan");
}

void ScanAndExtract(std::string_view bytes) {
  const test::TempFolder folder;
  // Some levels deep, so that the listing also shows what leaves the destination.
  const fs::Path archive = folder / "a/b/package.zip";
  const fs::Path destination = folder / "a/b/stage";
  test::WriteFile(archive, bytes);
  ZipScanResult scan;
  std::string error;
  const bool accepted = ScanZipArchive(PathToUtf8(archive), &scan, &error);
  if (scan.total_uncompressed_bytes > kDeclaredBytesMax) return;

  if (bytes.size() % 2 == 1) test::WriteFile(destination / "old.txt", "old");
  const std::string before = test::ListTree(folder.path());
  const bool extracted = ExtractPackage(archive, destination, &error);
  Require(extracted == error.empty(), "a failure has a reason and a success has none");
  Require(accepted || !extracted, "what the scan refuses is not extracted");
  if (extracted) return RequireFiles(test::FilesBelow(folder.path()), scan);
  Require(test::ListTree(folder.path()) == before, "a failure changes nothing");
}

}  // namespace

void Run(std::string_view input) {
  ScanAndExtract(input);
  const std::string repaired = Repaired(input);
  if (repaired != input) ScanAndExtract(repaired);
}

}  // namespace zul::fuzz
