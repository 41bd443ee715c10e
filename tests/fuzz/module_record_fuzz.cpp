// The headers of a module in another process.
// Input: the image as it is in memory. Its last byte says how many bytes more it claims to have.

#include <cstring>
#include <string>

#include "collector/module_record.h"
#include "tests/fuzz/fuzz_target.h"

namespace zul::fuzz {

void Run(std::string_view input) {
  constexpr std::uint64_t kBase = 0x7FF600000000;
  const std::size_t claimed =
      input.size() + (input.empty() ? 0u : static_cast<unsigned char>(input.back()));
  ModuleRecord module{.base = kBase, .image_size = claimed};
  const auto read = [&](std::uint64_t address, void* to, std::size_t size) {
    const std::uint64_t offset = address - kBase;
    Require(offset <= claimed && size <= claimed - offset, "nothing is read outside the image");
    if (offset > input.size() || size > input.size() - offset) return false;
    std::memcpy(to, input.data() + offset, size);
    return true;
  };
  ReadModuleIdentity(read, &module);
  if (module.pdb_guid.empty()) return Require(module.pdb_age == 0, "no guid, no age");
  Require(module.pdb_guid.size() == 32, "a guid has 32 digits");
  // "RSDS", the 16 bytes that the guid shows, and the age in little-endian, as on this machine.
  std::string code_view = "RSDS";
  for (std::size_t i = 0; i < module.pdb_guid.size(); i += 2) {
    code_view += static_cast<char>(std::stoi(module.pdb_guid.substr(i, 2), nullptr, 16));
  }
  code_view.append(reinterpret_cast<const char*>(&module.pdb_age), sizeof module.pdb_age);
  Require(input.find(code_view) != input.npos, "an identity is in the image");
}

}  // namespace zul::fuzz
