#pragma once

// The modules of another process, and what a frame record states about an address in one: the
// module's name, its build, and the offset. A frame record holds no path, no symbol name, no
// address and no memory contents.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace zul {

/// One loaded image of a process.
struct ModuleRecord {
  std::uint64_t base = 0;
  std::uint64_t image_size = 0;
  std::uint32_t image_timestamp = 0;  ///< from the PE header; 0 when unknown
  std::string name{};                 ///< from SanitizeModuleName
  std::string pdb_guid{};             ///< 32 lower-case hexadecimal digits; empty when unknown
  std::uint32_t pdb_age = 0;
};

/// The last component of a UTF-8 path with either separator when it is an evidence word
/// (IsEvidenceWord), else "unnamed_module": the name of a user's library may be private.
[[nodiscard]] std::string SanitizeModuleName(std::string_view path);

/// Copies `size` bytes at `address` of the examined process; false when not all are readable.
using MemoryReader = std::function<bool(std::uint64_t address, void* to, std::size_t size)>;

/// Sets image_timestamp, pdb_guid and pdb_age of a module whose base and size are known, from its
/// PE headers and the CodeView entry of its debug directory ("PE Format" in the platform's
/// documentation). The headers may be damaged or hostile, so nothing outside the image is read. The
/// path of the pdb is not read, since it may name a build machine. A value that is unavailable
/// stays unchanged.
void ReadModuleIdentity(const MemoryReader& read, ModuleRecord* module);

/// The record of one stack frame: module_resolved, and for an address in a module its name, the
/// offset and the build. Of overlapping modules the first one counts. An address in no module is
/// not recorded.
[[nodiscard]] nlohmann::json FrameRecord(const std::vector<ModuleRecord>& modules,
                                         std::uint64_t address);

}  // namespace zul
