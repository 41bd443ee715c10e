// Decoding, normalisation and collisions of entry names.
// Input: one name a line; behind a tab the name of a Unicode path record for it, behind a vertical
// tab an extra field as it stands.

#include "core/text.h"
#include "package/zip_names.h"
#include "package/zip_scan.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/zip_builder.h"

namespace zul::fuzz {

namespace {

constexpr std::size_t kNamesMax = 64;

std::string Fold(std::string_view text) {
  std::string folded(text);
  for (char& c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
  }
  return folded;
}

// Two entries meet on a file system that folds ASCII case when one's path is the other's, or would
// be a folder of the other and is a file, or when they spell a folder that they share differently.
bool Meet(const ZipEntryRecord& a, const ZipEntryRecord& b) {
  const auto a_parts = SplitAt(a.path, '/');
  const auto b_parts = SplitAt(b.path, '/');
  std::size_t shared = 0;
  while (shared < a_parts.size() && shared < b_parts.size() &&
         Fold(a_parts[shared]) == Fold(b_parts[shared])) {
    if (a_parts[shared] != b_parts[shared]) return true;
    ++shared;
  }
  const bool a_ends = shared == a_parts.size();
  const bool b_ends = shared == b_parts.size();
  return (a_ends && b_ends) || (a_ends && !a.is_directory) || (b_ends && !b.is_directory);
}

bool AnyMeet(const std::vector<ZipEntryRecord>& entries) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (Meet(entries[i], entries[j])) return true;
    }
  }
  return false;
}

std::string DecodeLine(std::string_view line) {
  const std::size_t mark = line.find_first_of("\t\v");
  const std::string_view raw = line.substr(0, mark);
  std::string extra;
  if (mark != std::string_view::npos) {
    extra = line.substr(mark + 1);
    if (line[mark] == '\t') extra = test::UnicodePathExtra(raw, extra);
  }
  const DecodedZipName decoded = DecodeZipEntryName(raw, extra);
  Require(IsValidUtf8(decoded.name), "a decoded name is UTF-8");
  Require(!IsValidUtf8(raw) || decoded.name == raw, "a name that is UTF-8 stays what it is");
  return decoded.name;
}

void RequireHarmless(const std::string& path) {
  std::string again;
  Require(NormalizeZipEntryPath(path, false, again) && again == path,
          "an accepted name is the same after a second normalisation");
  Require(NormalizeZipEntryPath(path + "\\", true, again) && again == path,
          "a directory is named as a file is");
  Require(path.find_first_of("\\:*?\"<>|\x7F") == std::string::npos && path.front() != '/',
          "an accepted name is relative and means the same to every file system");
  for (const std::string_view part : SplitAt(path, '/')) {
    Require(!part.empty() && part.back() != '.' && part.back() != ' ',
            "an accepted name neither climbs nor loses its end");
  }
}

}  // namespace

void Run(std::string_view input) {
  std::vector<ZipEntryRecord> entries;
  for (const std::string_view line : SplitAt(input, '\n')) {
    const std::string name = DecodeLine(line);
    ZipEntryRecord entry;
    entry.is_directory = IsZipDirectoryName(name);
    if (!NormalizeZipEntryPath(name, entry.is_directory, entry.path)) continue;
    RequireHarmless(entry.path);
    (void)IsArchiveMetadataPath(entry.path);
    if (entries.size() < kNamesMax) entries.push_back(entry);
  }
  Require(CheckZipPathCollisions(entries, nullptr) == !AnyMeet(entries),
          "names are refused together exactly when two of them meet");
}

}  // namespace zul::fuzz
