#include "collector/module_record.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>

#include "collector/evidence_sanitizer.h"

namespace zul {

namespace {

// Sizes and offsets in the PE headers of a 64-bit image. stack_capture_win32.cpp compares them with
// the platform's declarations.
constexpr std::size_t kDosHeaderSize = 64;
constexpr std::size_t kHeaderOffsetAt = 60;
constexpr std::uint16_t kDosSignature = 0x5A4D;  // "MZ"
constexpr std::size_t kHeadersSize = 264;
constexpr std::uint32_t kHeadersSignature = 0x4550;  // "PE"
constexpr std::size_t kTimestampAt = 8;
constexpr std::size_t kDebugDirectoryAt = 184;
constexpr std::size_t kDebugEntrySize = 28;
constexpr std::size_t kDebugEntriesMax = 64;
constexpr std::size_t kEntryTypeAt = 12;
constexpr std::size_t kEntryDataSizeAt = 16;
constexpr std::size_t kEntryDataAt = 20;
constexpr std::uint32_t kCodeView = 2;
constexpr std::string_view kCodeViewSignature = "RSDS";
constexpr std::size_t kGuidSize = 16;
constexpr std::size_t kCodeViewSize = kCodeViewSignature.size() + kGuidSize + 4;

template <typename Number>
Number NumberAt(const std::byte* bytes, std::size_t at) {
  Number number = 0;
  for (std::size_t i = sizeof number; i-- > 0;) {
    number = static_cast<Number>(number << 8 | std::to_integer<Number>(bytes[at + i]));
  }
  return number;
}

/// An image in another process. Reads stay within its bounds.
class Image {
 public:
  Image(const MemoryReader& read, const ModuleRecord& module)
      : read_(read), base_(module.base), size_(module.image_size) {}

  [[nodiscard]] bool Read(std::uint64_t offset, std::byte* to, std::size_t size) const {
    return offset <= size_ && size <= size_ - offset && read_(base_ + offset, to, size);
  }

 private:
  const MemoryReader& read_;
  std::uint64_t base_;
  std::uint64_t size_;
};

using Headers = std::array<std::byte, kHeadersSize>;
using CodeView = std::array<std::byte, kCodeViewSize>;

std::optional<Headers> ReadHeaders(const Image& image) {
  std::array<std::byte, kDosHeaderSize> dos;
  if (!image.Read(0, dos.data(), dos.size())) return std::nullopt;
  const auto offset = NumberAt<std::uint32_t>(dos.data(), kHeaderOffsetAt);
  constexpr std::uint32_t kSignBit = 0x80000000;
  if (NumberAt<std::uint16_t>(dos.data(), 0) != kDosSignature || (offset & kSignBit) != 0) {
    return std::nullopt;
  }
  Headers headers;
  if (!image.Read(offset, headers.data(), headers.size()) ||
      NumberAt<std::uint32_t>(headers.data(), 0) != kHeadersSignature) {
    return std::nullopt;
  }
  return headers;
}

/// The signature, guid and age of the first valid CodeView record in the debug directory.
std::optional<CodeView> ReadCodeView(const Image& image, const Headers& headers) {
  const auto at = NumberAt<std::uint32_t>(headers.data(), kDebugDirectoryAt);
  const auto size = NumberAt<std::uint32_t>(headers.data(), kDebugDirectoryAt + 4);
  std::array<std::byte, kDebugEntrySize * kDebugEntriesMax> entries;
  if (size < kDebugEntrySize || size > entries.size() || !image.Read(at, entries.data(), size)) {
    return std::nullopt;
  }
  for (std::size_t i = 0; i < size / kDebugEntrySize; ++i) {
    const std::byte* const entry = entries.data() + i * kDebugEntrySize;
    if (NumberAt<std::uint32_t>(entry, kEntryTypeAt) != kCodeView ||
        NumberAt<std::uint32_t>(entry, kEntryDataSizeAt) < kCodeViewSize) {
      continue;
    }
    CodeView record;
    if (image.Read(NumberAt<std::uint32_t>(entry, kEntryDataAt), record.data(), record.size()) &&
        std::memcmp(record.data(), kCodeViewSignature.data(), kCodeViewSignature.size()) == 0) {
      return record;
    }
  }
  return std::nullopt;
}

std::string LowerHex(const std::byte* bytes, std::size_t size) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[std::to_integer<std::size_t>(bytes[i] >> 4)];
    text += kDigits[std::to_integer<std::size_t>(bytes[i] & std::byte{0xF})];
  }
  return text;
}

}  // namespace

std::string SanitizeModuleName(std::string_view path) {
  constexpr std::string_view kUnnamedModule = "unnamed_module";
  const std::size_t separator = path.find_last_of("\\/");
  if (separator != std::string_view::npos) path.remove_prefix(separator + 1);
  return std::string(IsEvidenceWord(path) ? path : kUnnamedModule);
}

void ReadModuleIdentity(const MemoryReader& read, ModuleRecord* module) {
  const Image image(read, *module);
  const std::optional<Headers> headers = ReadHeaders(image);
  if (!headers) return;
  module->image_timestamp = NumberAt<std::uint32_t>(headers->data(), kTimestampAt);
  const std::optional<CodeView> code_view = ReadCodeView(image, *headers);
  if (!code_view) return;
  module->pdb_guid = LowerHex(code_view->data() + kCodeViewSignature.size(), kGuidSize);
  module->pdb_age =
      NumberAt<std::uint32_t>(code_view->data(), kCodeViewSignature.size() + kGuidSize);
}

nlohmann::json FrameRecord(const std::vector<ModuleRecord>& modules, std::uint64_t address) {
  const auto holds = [address](const ModuleRecord& module) {
    return module.base <= address && address - module.base < module.image_size;
  };
  const auto module = std::find_if(modules.begin(), modules.end(), holds);
  if (module == modules.end()) return {{"module_resolved", false}};
  nlohmann::json frame = {{"module_resolved", true},
                          {"module", module->name},
                          {"rva", address - module->base},
                          {"image_size", module->image_size},
                          {"image_timestamp", module->image_timestamp}};
  if (!module->pdb_guid.empty()) {
    frame["pdb_guid"] = module->pdb_guid;
    frame["pdb_age"] = module->pdb_age;
  }
  return frame;
}

}  // namespace zul
