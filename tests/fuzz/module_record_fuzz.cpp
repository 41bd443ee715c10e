// The headers of a module in another process.
// Input: the image as it lies in memory; its last byte says how much more it claims to have.

#include <cstring>

#include "collector/module_record.h"
#include "tests/fuzz/fuzz_target.h"

namespace zul::fuzz {

namespace {

constexpr std::uint64_t kBase = 0x7FF600000000;

int ValueOf(char digit) {
  return digit <= '9' ? digit - '0' : digit - 'a' + 10;
}

/// "RSDS", the 16 bytes that `guid` shows, and the age: what an identity stands for in an image.
std::string CodeViewOf(const std::string& guid, std::uint32_t age) {
  std::string bytes = "RSDS";
  for (std::size_t i = 0; i + 1 < guid.size(); i += 2) {
    bytes += static_cast<char>(ValueOf(guid[i]) * 16 + ValueOf(guid[i + 1]));
  }
  for (std::uint32_t i = 0; i < 4; ++i) bytes += static_cast<char>(age >> 8 * i);
  return bytes;
}

}  // namespace

void Run(std::string_view input) {
  const std::size_t claimed =
      input.size() + (input.empty() ? 0u : static_cast<unsigned char>(input.back()));
  ModuleRecord module{.base = kBase, .image_size = claimed};
  const auto read = [&](std::uint64_t address, void* to, std::size_t size) {
    Require(address >= kBase && address - kBase <= claimed && size <= claimed - (address - kBase),
            "nothing is read outside the image");
    const std::uint64_t offset = address - kBase;
    if (offset > input.size() || size > input.size() - offset) return false;
    std::memcpy(to, input.data() + offset, size);
    return true;
  };
  ReadModuleIdentity(read, &module);
  if (module.pdb_guid.empty()) {
    Require(module.pdb_age == 0, "an age comes with its guid");
    return;
  }
  Require(module.pdb_guid.size() == 32, "a guid has 32 digits");
  Require(input.find(CodeViewOf(module.pdb_guid, module.pdb_age)) != input.npos,
          "an identity is one that stands in the image");
}

}  // namespace zul::fuzz
