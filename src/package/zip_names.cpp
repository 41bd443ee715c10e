#include "package/zip_names.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <utility>

#include "core/text.h"

namespace zul {

namespace {

std::uint64_t LittleEndian(std::string_view bytes, std::size_t at, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = width; i > 0; --i) {
    value = value << 8 | static_cast<unsigned char>(bytes[at + i - 1]);
  }
  return value;
}

// The name in an Info-ZIP Unicode path record (APPNOTE 4.6.9): version 1, CRC-32 of the name field,
// UTF-8 name. Empty when the record is of another kind, or not for `raw`.
std::string_view UnicodePathOf(const ZipExtraRecord& record, std::string_view raw) {
  constexpr std::uint16_t kUnicodePathId = 0x7075;
  constexpr std::size_t kFixedPart = 5;
  if (record.id != kUnicodePathId || record.data.size() < kFixedPart || record.data[0] != 1) {
    return {};
  }
  const auto raw_crc =
      crc32(0, reinterpret_cast<const Bytef*>(raw.data()), static_cast<uInt>(raw.size()));
  if (LittleEndian32(record.data, 1) != raw_crc) return {};
  const std::string_view name = record.data.substr(kFixedPart);
  const bool usable = IsValidUtf8(name) && name.find('\0') == std::string_view::npos;
  return usable ? name : std::string_view();
}

// CON, COM1 and so on are devices in every directory and with every extension. Windows accepts the
// superscript digits of Latin-1 as digits here.
bool IsReservedName(std::string_view component) {
  constexpr std::size_t kShortest = 3;
  constexpr std::size_t kLongest = 5;  // "com" and a superscript of two bytes
  std::string_view stem = component.substr(0, component.find('.'));
  while (!stem.empty() && stem.back() == ' ') stem.remove_suffix(1);
  if (stem.size() < kShortest || stem.size() > kLongest) return false;
  const std::string name = AsciiLower(stem);
  if (name == "con" || name == "prn" || name == "aux" || name == "nul") return true;
  if (!name.starts_with("com") && !name.starts_with("lpt")) return false;
  const std::string_view port = std::string_view(name).substr(kShortest);
  if (port.size() == 1) return port[0] >= '1' && port[0] <= '9';
  return port == "\u00B9" || port == "\u00B2" || port == "\u00B3";
}

constexpr std::array<bool, 256> kForbiddenInName = [] {
  std::array<bool, 256> forbidden{};
  for (std::size_t byte = 0; byte < 0x20; ++byte) forbidden[byte] = true;
  for (const char c : std::string_view("\x7F\"*:<>?|")) {
    forbidden[static_cast<unsigned char>(c)] = true;
  }
  return forbidden;
}();

bool IsForbiddenInName(char c) {
  return kForbiddenInName[static_cast<unsigned char>(c)];
}

bool IsSafeComponent(std::string_view component) {
  if (component.empty() || component == "." || component == "..") return false;
  if (component.back() == ' ' || component.back() == '.') return false;
  if (std::any_of(component.begin(), component.end(), IsForbiddenInName)) return false;
  return !IsReservedName(component);
}

bool StartsWithDrive(std::string_view path) {
  if (path.size() < 2 || path[1] != ':') return false;
  const char letter = AsciiLower(path[0]);
  return letter >= 'a' && letter <= 'z';
}

bool IsMetadataComponent(std::string_view component) {
  if (component.starts_with("._")) return true;
  const char first = component.empty() ? '\0' : component.front();
  if (first != '.' && first != '_') return false;  // most names
  const std::string folded = AsciiLower(component);
  return folded == "__macosx" || folded == ".ds_store";
}

// Calls `accept` for each part between separators, including empty ones, until it returns false.
template <typename Accept>
bool ForEachComponent(std::string_view path, char separator, Accept accept) {
  for (;;) {
    const std::size_t end = path.find(separator);
    if (!accept(path.substr(0, end))) return false;
    if (end == std::string_view::npos) return true;
    path.remove_prefix(end + 1);
  }
}

}  // namespace

std::uint16_t LittleEndian16(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint16_t>(LittleEndian(bytes, at, 2));
}

std::uint32_t LittleEndian32(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint32_t>(LittleEndian(bytes, at, 4));
}

std::uint64_t LittleEndian64(std::string_view bytes, std::size_t at) {
  return LittleEndian(bytes, at, 8);
}

std::optional<ZipExtraRecord> TakeZipExtraRecord(std::string_view* rest) {
  constexpr std::size_t kHeaderBytes = 4;
  if (rest->size() < kHeaderBytes) return std::nullopt;
  const std::size_t size = LittleEndian16(*rest, 2);
  if (size > rest->size() - kHeaderBytes) return std::nullopt;
  const ZipExtraRecord record{LittleEndian16(*rest, 0), rest->substr(kHeaderBytes, size)};
  rest->remove_prefix(kHeaderBytes + size);
  return record;
}

DecodedZipName DecodeZipEntryName(std::string_view raw, std::string_view extra) {
  if (IsValidUtf8(raw)) return {std::string(raw), false};
  while (const auto record = TakeZipExtraRecord(&extra)) {
    const std::string_view name = UnicodePathOf(*record, raw);
    if (!name.empty()) return {std::string(name), true};
  }
  LegacyZipName cp866 = DecodeLegacyZipName(raw, LegacyCodePage::kCp866);
  LegacyZipName windows1251 = DecodeLegacyZipName(raw, LegacyCodePage::kWindows1251);
  const bool take_windows1251 = windows1251.score > cp866.score;
  return {std::move(take_windows1251 ? windows1251.name : cp866.name), false};
}

bool IsZipDirectoryName(std::string_view name) {
  return name.ends_with('/') || name.ends_with('\\');
}

bool NormalizeZipEntryPath(std::string name, bool is_directory, std::string* path) {
  std::replace(name.begin(), name.end(), '\\', '/');
  if (name.ends_with('/') != is_directory) return false;
  if (is_directory) name.pop_back();
  if (name.starts_with('/') || StartsWithDrive(name)) return false;
  if (!ForEachComponent(name, '/', IsSafeComponent)) return false;
  *path = std::move(name);
  return true;
}

bool IsArchiveMetadataPath(std::string_view path) {
  const auto is_kept = [](std::string_view part) {
    return ForEachComponent(part, '\\', std::not_fn(IsMetadataComponent));
  };
  return !ForEachComponent(path, '/', is_kept);
}

}  // namespace zul
