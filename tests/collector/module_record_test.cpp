// What is told of a module, from images that are sound and images that lie.

#include "collector/module_record.h"

#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>

namespace zul {
namespace {

using nlohmann::json;

constexpr std::uint64_t kBase = 0x140000000;
constexpr std::size_t kSize = 0x1000;
constexpr std::size_t kHeaders = 0x80;
constexpr std::size_t kDirectory = kHeaders + 184;  // address, size
constexpr std::size_t kEntries = 0x400;
constexpr std::size_t kCodeView = kSize - 24;  // ends with the image
constexpr const char* kGuid = "00112233445566778899aabbccddeeff";

/// A loaded image whose second debug entry is a CodeView record.
struct Image {
  std::string bytes = std::string(kSize, '\xEE');

  Image() {
    Text(0, "MZ").Number(60, kHeaders).Text(kHeaders, std::string_view("PE\0\0", 4));
    Number(kHeaders + 8, 0x65A1B2C3).Number(kDirectory, kEntries).Number(kDirectory + 4, 2 * 28);
    Entry(0, 16, 24, 0x700).Entry(1, 2, 60, kCodeView).Text(kCodeView, "RSDS");
    for (std::size_t i = 0; i < 16; ++i) bytes[kCodeView + 4 + i] = static_cast<char>(i * 0x11);
    Number(kCodeView + 20, 7);
  }
  Image& Text(std::size_t at, std::string_view text) {
    bytes.replace(at, text.size(), text);
    return *this;
  }
  Image& Number(std::size_t at, std::uint32_t number) {
    for (std::size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(number >> 8 * i);
    return *this;
  }
  Image& Entry(std::size_t index, std::uint32_t type, std::uint32_t size, std::size_t at) {
    const std::size_t entry = kEntries + 28 * index;
    Number(entry + 12, type).Number(entry + 16, size);
    return Number(entry + 20, static_cast<std::uint32_t>(at));
  }
  /// "timestamp guid age" as they are read; what lies above `readable` cannot be.
  std::string Identity(std::size_t image_size, std::size_t readable) const {
    ModuleRecord module{.base = kBase, .image_size = image_size};
    const auto read = [&](std::uint64_t address, void* to, std::size_t size) {
      EXPECT_TRUE(address >= kBase && address - kBase + size <= image_size) << address;
      if (address - kBase + size > readable) return false;
      std::memcpy(to, bytes.data() + (address - kBase), size);
      return true;
    };
    ReadModuleIdentity(read, &module);
    return std::to_string(module.image_timestamp) + " " + module.pdb_guid + " " +
           std::to_string(module.pdb_age);
  }
};

TEST(ModuleRecord, HasTheIdentityThatItsHeadersGive) {
  const std::string whole = "1705095875 " + std::string(kGuid) + " 7";
  const std::string timestamp = "1705095875  0";
  const std::string nothing = "0  0";
  const struct {
    const char* name;
    std::string expected;
    void (*change)(Image& image);
    std::size_t image_size = kSize;
    std::size_t readable = kSize;
  } cases[] = {
      {"sound", whole, [](Image&) {}},
      {"no MZ", nothing, [](Image& i) { i.Text(0, "ZM"); }},
      {"no PE", nothing, [](Image& i) { i.Text(kHeaders, "PF"); }},
      {"negative header offset", nothing, [](Image& i) { i.Number(60, 0x80000080); }},
      {"headers end outside", nothing, [](Image& i) { i.Number(60, kSize - 263); }},
      {"empty image", nothing, [](Image&) {}, 0},
      {"image without its second half", timestamp, [](Image&) {}, kSize - 1},
      {"unreadable from the headers on", nothing, [](Image&) {}, kSize, kHeaders + 263},
      {"unreadable from the entries on", timestamp, [](Image&) {}, kSize, kEntries + 55},
      {"unreadable CodeView", timestamp, [](Image&) {}, kSize, kSize - 1},
      {"no debug directory", timestamp,
       [](Image& i) { i.Number(kDirectory, 0).Number(kDirectory + 4, 0); }},
      {"directory below an entry", timestamp, [](Image& i) { i.Number(kDirectory + 4, 27); }},
      {"directory of 64 entries", whole, [](Image& i) { i.Number(kDirectory + 4, 1792); }},
      {"directory of more", timestamp, [](Image& i) { i.Number(kDirectory + 4, 1793); }},
      {"directory ends outside", timestamp, [](Image& i) { i.Number(kDirectory, kSize - 55); }},
      {"directory wraps around", timestamp, [](Image& i) { i.Number(kDirectory, 0xFFFFFFFF); }},
      {"half of the second entry", timestamp, [](Image& i) { i.Number(kDirectory + 4, 55); }},
      {"short CodeView", timestamp, [](Image& i) { i.Entry(1, 2, 23, kCodeView); }},
      {"CodeView ends outside", timestamp, [](Image& i) { i.Entry(1, 2, 24, kCodeView + 1); }},
      {"CodeView wraps around", timestamp, [](Image& i) { i.Entry(1, 2, 24, 0xFFFFFFFF); }},
      {"older CodeView", timestamp, [](Image& i) { i.Text(kCodeView, "NB10"); }},
  };
  for (const auto& c : cases) {
    Image image;
    c.change(image);
    EXPECT_EQ(image.Identity(c.image_size, c.readable), c.expected) << c.name;
  }
}

TEST(ModuleRecord, IsNamedOnlyWhereTheNameSaysNothingPrivate) {
  const std::string longest(128, 'a');
  const std::pair<std::string, std::string> cases[] = {
      {"C:\\Windows\\System32\\ntdll.dll", "ntdll.dll"},
      {"\\\\server\\share/A-b_9.DLL", "A-b_9.DLL"},
      {"C:\\x\\" + longest, longest},
      {"C:\\x\\" + longest + "a", "unnamed_module"},
      {"C:\\Jana Nová\\Jana's filter.dll", "unnamed_module"},
      {"C:\\x\\ž.dll", "unnamed_module"},
      {"C:x.dll", "unnamed_module"},
      {"C:\\x\\", "unnamed_module"},
      {"", "unnamed_module"},
  };
  for (const auto& [path, name] : cases) EXPECT_EQ(SanitizeModuleName(path), name) << path;
}

TEST(ModuleRecord, IsWhatAFrameTells) {
  const std::vector<ModuleRecord> modules = {
      {.base = 0x1000, .image_size = 0x1000, .image_timestamp = 5, .name = "a.dll"},
      {.base = 0x1800, .image_size = 0x1000, .name = "b.dll", .pdb_guid = kGuid, .pdb_age = 1},
      {.base = ~0ull - 0xF, .image_size = 0x1000, .name = "top.dll"},
  };
  const json first = {{"module_resolved", true},
                      {"module", "a.dll"},
                      {"rva", 0xFFF},
                      {"image_size", 0x1000},
                      {"image_timestamp", 5}};
  const json second = {
      {"module_resolved", true}, {"module", "b.dll"}, {"rva", 0x800}, {"image_size", 0x1000},
      {"image_timestamp", 0},    {"pdb_guid", kGuid}, {"pdb_age", 1}};
  EXPECT_EQ(FrameRecord(modules, 0x1FFF), first);
  EXPECT_EQ(FrameRecord(modules, 0x2000), second);
  EXPECT_EQ(FrameRecord(modules, ~0ull)["rva"], 0xF);
  for (const std::uint64_t address : {0x0ull, 0xFFFull, 0x2800ull}) {
    EXPECT_EQ(FrameRecord(modules, address), (json{{"module_resolved", false}})) << address;
  }
}

}  // namespace
}  // namespace zul
