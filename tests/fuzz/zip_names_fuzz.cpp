// Decoding, normalisation and collisions of entry names.
// Input: one name a line; behind a tab the name of a Unicode path record for it, behind a vertical
// tab an extra field as it stands.

#include <algorithm>
#include <string>

#include "core/text.h"
#include "package/zip_names.h"
#include "package/zip_scan.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/support/zip_builder.h"

namespace zul::fuzz {

namespace {

constexpr std::size_t kNamesMax = 64;

// Two entries meet on a file system that folds ASCII case when one's path is the other's, or would
// be a folder of the other and is a file, or when they spell a folder that they share differently.
bool Meet(const ZipEntryRecord& a, const ZipEntryRecord& b) {
  const auto a_parts = SplitAt(a.path, "/");
  const auto b_parts = SplitAt(b.path, "/");
  const auto [a_part, b_part] =
      std::mismatch(a_parts.begin(), a_parts.end(), b_parts.begin(), b_parts.end());
  const bool a_ends = a_part == a_parts.end();
  const bool b_ends = b_part == b_parts.end();
  if (a_ends && b_ends) return true;
  if (a_ends || b_ends) return a_ends ? !a.is_directory : !b.is_directory;
  return AsciiLower(*a_part) == AsciiLower(*b_part);
}

std::string DecodeLine(std::string_view line) {
  const std::size_t mark = line.find_first_of("\t\v");
  const std::string_view raw = line.substr(0, mark);
  std::string extra;
  if (mark != line.npos) extra = line.substr(mark + 1);
  if (mark != line.npos && line[mark] == '\t') extra = test::UnicodePathExtra(raw, extra);
  const DecodedZipName decoded = DecodeZipEntryName(raw, extra);
  Require(IsValidUtf8(decoded.name), "a decoded name is UTF-8");
  Require(!IsValidUtf8(raw) || decoded.name == raw, "a name that is UTF-8 stays what it is");
  return decoded.name;
}

void RequireHarmless(const std::string& path) {
  std::string again;
  const bool stays = NormalizeZipEntryPath(path, false, &again) && again == path;
  Require(stays, "an accepted name is the same after a second normalisation");
  const bool as_file = NormalizeZipEntryPath(path + "\\", true, &again) && again == path;
  Require(as_file, "a directory is named as a file is");
  Require(path.front() != '/', "an accepted name is relative");
  Require(path.find_first_of("\\:*?\"<>|\x7F") == path.npos, "and means the same everywhere");
  for (const std::string_view part : SplitAt(path, "/")) {
    Require(!part.empty() && part.back() != '.' && part.back() != ' ',
            "an accepted name neither climbs nor loses its end");
  }
}

}  // namespace

void Run(std::string_view input) {
  std::vector<ZipEntryRecord> entries;
  bool any_meet = false;
  for (const std::string_view line : SplitAt(input, "\n")) {
    const std::string name = DecodeLine(line);
    ZipEntryRecord entry;
    entry.is_directory = IsZipDirectoryName(name);
    if (!NormalizeZipEntryPath(name, entry.is_directory, &entry.path)) continue;
    RequireHarmless(entry.path);
    static_cast<void>(IsArchiveMetadataPath(entry.path));
    if (entries.size() == kNamesMax) continue;
    for (const ZipEntryRecord& other : entries) any_meet = any_meet || Meet(entry, other);
    entries.push_back(entry);
  }
  Require(CheckZipPathCollisions(entries, nullptr) == !any_meet,
          "names are refused together exactly when two of them meet");
}

}  // namespace zul::fuzz
