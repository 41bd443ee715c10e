#pragma once

// emergency.bin: what a dying process writes about itself, and how that is read afterwards.
//
// The file is made, empty, when the process starts to be observed, and stays open. The crash path
// fills a record on its stack (emergency_record_win32.h) and writes it, which takes no memory and
// no lock. A process that did not crash leaves the file empty; one that dies while it writes leaves
// it short, and a short record counts as none.

#include <array>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>
#include <type_traits>

#include "core/file_layer.h"

namespace zul {

enum class EmergencyKind : std::uint32_t { kNativeException = 1, kTerminate = 2 };

/// The file's whole content, little-endian; the same bytes lie in the memory that a process shares
/// with its observer. Aligned for the system's context record.
struct alignas(16) EmergencyRecord {
  std::array<char, 4> magic{'E', 'D', 'V', 'Q'};
  std::uint32_t size = 1264;
  std::uint32_t exception_code = 0;  ///< 0 for a terminate
  std::uint32_t thread_id = 0;       ///< the thread that crashed
  std::uint32_t kind = 0;            ///< an EmergencyKind, when the writer is sound
  std::uint32_t reserved = 0;
  std::uint64_t instruction_pointer = 0;
  std::array<std::byte, 1232> context{};  ///< x86-64 CONTEXT as winnt.h has it
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

/// Makes the empty file in a session folder, which must not hold one. What is written to it returns
/// when the device has it.
[[nodiscard]] fs::File CreateEmergencyFile(const fs::Path& session_directory, std::error_code& ec);

/// Writes the record, once, from a process that may be broken: no memory, no lock, nothing thrown.
/// False when the device did not take all of it.
[[nodiscard]] bool WriteEmergencyRecord(fs::File& file, const EmergencyRecord& record) noexcept;

/// The record in a file's bytes; nothing unless size and magic are right.
[[nodiscard]] std::optional<EmergencyRecord> ParseEmergencyRecord(std::string_view bytes);

/// States the crash in an incident record, which must be an object: exception_observed,
/// exception_code, thread_id and event.
void MergeEmergencyRecord(const EmergencyRecord& emergency, nlohmann::json* record);

/// Merges the emergency.bin of a session into its incident record when it holds one. Anything else
/// there, an empty file above all, changes nothing.
void ReadEmergencyFile(const fs::Path& session_directory, nlohmann::json* record);

}  // namespace zul
