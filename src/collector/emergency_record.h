#pragma once

// emergency.bin: the record that a crashing process writes about itself, and its readers.
//
// The start of the collector creates the file, empty, and keeps it open. The crash path fills a
// record on its stack and writes it (crash_handlers_win32.h). A process that did not crash leaves
// the file empty. A process that ends during the write leaves a short file, which holds no record.

#include <array>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <type_traits>

#include "core/file_layer.h"

namespace zul {

/// How a process crashed.
enum class EmergencyKind : std::uint32_t { kNativeException = 1, kTerminate = 2 };

/// The file's whole content, little-endian. The block that a process shares with its observer holds
/// one too. Aligned for the system's CONTEXT.
struct alignas(16) EmergencyRecord {
  std::array<char, 4> magic{'E', 'D', 'V', 'Q'};
  std::uint32_t size = 1264;
  std::uint32_t exception_code = 0;  ///< 0 for a terminate
  std::uint32_t thread_id = 0;       ///< the thread that crashed
  std::uint32_t kind = 0;            ///< an EmergencyKind; a damaged record may have any value
  std::uint32_t reserved = 0;
  std::uint64_t instruction_pointer = 0;
  std::array<std::byte, 1232> context{};  ///< the x86-64 CONTEXT of winnt.h
};

static_assert(offsetof(EmergencyRecord, magic) == 0);
static_assert(offsetof(EmergencyRecord, size) == 4);
static_assert(offsetof(EmergencyRecord, exception_code) == 8);
static_assert(offsetof(EmergencyRecord, thread_id) == 12);
static_assert(offsetof(EmergencyRecord, kind) == 16);
static_assert(offsetof(EmergencyRecord, reserved) == 20);
static_assert(offsetof(EmergencyRecord, instruction_pointer) == 24);
static_assert(offsetof(EmergencyRecord, context) == 32);
static_assert(sizeof(EmergencyRecord) == 1264 && EmergencyRecord().size == 1264);
static_assert(std::is_trivially_copyable_v<EmergencyRecord> &&
              std::is_standard_layout_v<EmergencyRecord>);

/// Creates the empty file in a session folder, which must not hold one yet. Each write to it is
/// written through to the device.
[[nodiscard]] fs::File CreateEmergencyFile(const fs::Path& session_directory, std::error_code& ec);

/// Writes and flushes the record. Allocates nothing and takes no lock, so that a crashing process
/// can call it. False when a part was not written or the flush failed.
[[nodiscard]] bool WriteEmergencyRecord(fs::File& file, const EmergencyRecord& record) noexcept;

/// Sets exception_observed, exception_code, thread_id and event in an incident record, which must
/// be an object.
void MergeEmergencyRecord(const EmergencyRecord& emergency, nlohmann::json* record);

/// Merges a session's emergency.bin into its incident record. A file of another size, or with
/// another magic or size field, holds no record and changes nothing.
void ReadEmergencyFile(const fs::Path& session_directory, nlohmann::json* record);

}  // namespace zul
