#pragma once

// The modules of another process: what a frame of its stack may say about the code it lies in. That
// is the module's name, its build, and an offset; no path, no symbol, no address, no memory.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace zul {

/// One loaded image.
struct ModuleRecord {
  std::uint64_t base = 0;
  std::uint64_t image_size = 0;
  std::uint32_t image_timestamp = 0;  ///< of the PE header; 0 when not known
  std::string name{};                 ///< as SanitizeModuleName gives it
  std::string pdb_guid{};             ///< 32 lower-case hexadecimal digits; empty when not known
  std::uint32_t pdb_age = 0;
};

/// What stands for a name that might say something private.
inline constexpr std::string_view kUnnamedModule = "unnamed_module";

/// The last component of a UTF-8 path with either separator when it is an evidence word
/// (IsEvidenceWord), else kUnnamedModule: users name folders, and libraries in them, as they like.
[[nodiscard]] std::string SanitizeModuleName(std::string_view path);

/// Copies `size` bytes at `address` of the process looked at; false when not all can be had.
using MemoryReader = std::function<bool(std::uint64_t address, void* to, std::size_t size)>;

/// Adds image_timestamp, pdb_guid and pdb_age to a module whose base and size are known, from its
/// PE headers and the CodeView entry of its debug directory ("PE Format" in the platform's
/// documentation). The headers are the process's own and may say anything: nothing is read outside
/// the image. The path of the pdb, which may name a build machine, is not read. What cannot be had
/// is left as it is.
void ReadModuleIdentity(const MemoryReader& read, ModuleRecord* module);

/// One frame of a stack: module_resolved, and in a module its name, the offset and the build. Of
/// modules that overlap the first one counts. An address in none of them is not told.
[[nodiscard]] nlohmann::json FrameRecord(const std::vector<ModuleRecord>& modules,
                                         std::uint64_t address);

}  // namespace zul
