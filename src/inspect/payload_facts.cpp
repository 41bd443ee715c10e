#include "inspect/payload_facts.h"

#include <algorithm>
#include <unordered_map>

#include "apply/apply_targets.h"
#include "apply/room.h"
#include "core/text.h"
#include "package/payload_signatures.h"

namespace zul {

namespace {

/// The path of an entry in the installation; nothing when it is beside the wrapper.
std::optional<std::string_view> InstalledPath(std::string_view path, std::string_view wrapper) {
  if (wrapper.empty()) return path;
  if (!path.starts_with(wrapper) || path.size() <= wrapper.size() || path[wrapper.size()] != '/') {
    return std::nullopt;
  }
  return path.substr(wrapper.size() + 1);
}

void AddInstalledFile(const ZipEntryRecord& entry, std::string_view path, PayloadFacts* facts) {
  const auto bytes = static_cast<std::uint64_t>(entry.uncompressed_size);
  ++facts->files;
  facts->bytes += bytes;
  facts->file_bytes.push_back(bytes);
  if (IsSignedFileName(PathOrEmpty(path))) facts->binaries.emplace_back(path);
  if (entry.is_link) facts->links.emplace_back(path);
  if (Utf16Units(kUsualInstallation) + 1 + Utf16Units(path) > kOrdinaryPathUnitsMax) {
    facts->long_paths.emplace_back(path);
  }
  if (path.find('/') == std::string_view::npos) facts->top_level_files.emplace_back(path);
}

/// Counts for two volumes with the cluster size that Windows formats a disk with.
RoomCount CountOnTwoVolumes() {
  constexpr std::uint64_t kClusterBytes = 4096;
  return {{.root = "temporary", .cluster_bytes = kClusterBytes},
          {.root = "installation", .cluster_bytes = kClusterBytes}};
}

/// The lower-case form of a letter by the simple case mapping of Unicode, for the blocks that
/// file names of this product use.
char32_t Folded(char32_t letter) {
  const auto in = [letter](char32_t first, char32_t last) {
    return letter >= first && letter <= last;
  };
  if (in(U'A', U'Z') || (in(0xC0, 0xDE) && letter != 0xD7)) return letter + 0x20;
  if (in(0x100, 0x12E) || in(0x132, 0x136) || in(0x14A, 0x176)) return letter | 1u;
  if (in(0x139, 0x147) || in(0x179, 0x17D)) return letter + (letter & 1u);
  if (in(0x391, 0x3A9) || in(0x410, 0x42F)) return letter + 0x20;
  if (in(0x400, 0x40F)) return letter + 0x50;
  if (in(0x460, 0x480) || in(0x48A, 0x4BE) || in(0x4D0, 0x52E)) return letter | 1u;
  return letter;
}

/// A valid UTF-8 text with every letter folded.
std::string FoldedText(std::string_view text) {
  std::string folded;
  for (std::size_t at = 0; at < text.size();) {
    const auto first = static_cast<unsigned char>(text[at]);
    const std::size_t size = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (size == 2) {
      const auto second = static_cast<unsigned char>(text[at + 1]);
      AppendUtf8(&folded, Folded((first & 0x1Fu) << 6 | (second & 0x3Fu)));
    } else if (size == 1) {
      folded += AsciiLower(text[at]);
    } else {
      folded.append(text.substr(at, size));
    }
    at += size;
  }
  return folded;
}

class SpellingsOnWindows {
 public:
  /// True when the path was entered before, in this or another spelling.
  [[nodiscard]] bool HasOther(std::string_view path) {
    return !spellings_.try_emplace(FoldedText(path), path).second;
  }

  /// True when a parent folder of the path was entered in another spelling.
  [[nodiscard]] bool HasOtherParent(std::string_view path) {
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos;
         slash = path.find('/', slash + 1)) {
      const std::string_view folder = path.substr(0, slash);
      if (spellings_.try_emplace(FoldedText(folder), folder).first->second != folder) return true;
    }
    return false;
  }

 private:
  std::unordered_map<std::string, std::string_view> spellings_;
};

}  // namespace

PayloadFacts DescribePayload(const std::vector<ZipEntryRecord>& entries, std::string_view wrapper) {
  PayloadFacts facts;
  for (const ZipEntryRecord& entry : entries) {
    if (const auto path = InstalledPath(entry.path, wrapper)) {
      AddInstalledFile(entry, *path, &facts);
    } else {
      facts.beside_wrapper.push_back(entry.path);
    }
  }
  for (const std::string_view name : RetiredExecutableNames()) {
    const auto has_name = [name](const std::string& file) { return AsciiLower(file) == name; };
    if (std::none_of(facts.top_level_files.begin(), facts.top_level_files.end(), has_name)) {
      facts.removed_retired.emplace_back(name);
    }
  }
  return facts;
}

std::optional<WindowsCollision> FindWindowsCollision(const std::vector<ZipEntryRecord>& entries) {
  SpellingsOnWindows spellings;
  for (const ZipEntryRecord& entry : entries) {
    if (spellings.HasOtherParent(entry.path)) {
      return WindowsCollision{RefusedEntry(entry),
                              "ZIP directory path collision on target filesystem"};
    }
    if (spellings.HasOther(entry.path)) {
      return WindowsCollision{RefusedEntry(entry),
                              "cannot create extracted file exclusively: path already exists"};
    }
  }
  return std::nullopt;
}

std::size_t Utf16Units(std::string_view text) {
  std::size_t units = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) != 0x80) units += byte >= 0xF0 ? 2 : 1;
  }
  return units;
}

RoomNeeded RoomFor(std::uint64_t package_bytes, std::uint64_t unpacked_bytes,
                   const PayloadFacts& payload) {
  RoomCount all_replaced = CountOnTwoVolumes();
  RoomCount all_new = CountOnTwoVolumes();
  for (const std::uint64_t bytes : payload.file_bytes) {
    all_replaced.AddReplacement(bytes, bytes);
    all_new.AddReplacement(0, bytes);
  }
  return {.temporary = package_bytes + unpacked_bytes + all_replaced.backup_bytes(),
          .installation = all_new.installation_bytes()};
}

}  // namespace zul
