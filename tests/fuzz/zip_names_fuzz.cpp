// Decoding, normalisation and collisions of entry names.
// Input: a name on each line. After a tab, the name for a Unicode path record; after a vertical
// tab, the bytes of an extra field.

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

/// True when two entries cannot both exist on a file system that ignores ASCII case: one path is
/// the other's, one is a file where the other has a folder, or they spell a common folder
/// differently.
bool Collide(const ZipEntryRecord& a, const ZipEntryRecord& b) {
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
  Require(!IsValidUtf8(raw) || decoded.name == raw, "a name that is UTF-8 stays the same");
  return decoded.name;
}

void RequireHarmless(const std::string& path) {
  std::string again;
  const bool stays = NormalizeZipEntryPath(path, false, &again) && again == path;
  Require(stays, "an accepted name is the same after a second normalisation");
  const bool as_file = NormalizeZipEntryPath(path + "\\", true, &again) && again == path;
  Require(as_file, "a directory gets the same name as a file");
  Require(path.front() != '/', "an accepted name is relative");
  Require(path.find_first_of("\\:*?\"<>|\x7F") == path.npos,
          "an accepted name has no special bytes");
  for (const std::string_view part : SplitAt(path, "/")) {
    Require(!part.empty() && part.back() != '.' && part.back() != ' ',
            "no part of an accepted name is empty or ends in a dot or blank");
  }
}

}  // namespace

void Run(std::string_view input) {
  std::vector<ZipEntryRecord> entries;
  bool any_collide = false;
  for (const std::string_view line : SplitAt(input, "\n")) {
    const std::string name = DecodeLine(line);
    ZipEntryRecord entry;
    entry.is_directory = IsZipDirectoryName(name);
    if (!NormalizeZipEntryPath(name, entry.is_directory, &entry.path)) continue;
    RequireHarmless(entry.path);
    static_cast<void>(IsArchiveMetadataPath(entry.path));
    if (entries.size() == kNamesMax) continue;
    for (const ZipEntryRecord& other : entries) any_collide = any_collide || Collide(entry, other);
    entries.push_back(entry);
  }
  Require(CheckZipPathCollisions(entries, nullptr) == !any_collide,
          "names are refused together exactly when two of them collide");
}

}  // namespace zul::fuzz
