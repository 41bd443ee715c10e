#pragma once

// The memory that a process shares with its observer. It has no name; only the observer inherits
// its handle. The observed process creates and fills it before it starts the observer. After that
// only the exit fields, the request and the emergency record change. Each of the exit fields and
// the request is written and read with one atomic operation. The emergency record is written before
// the request that announces it, and read after that request was taken.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>

#include "collector/emergency_record.h"
#include "collector/session_directory.h"

namespace zul {

/// What the observed process asks of its observer.
enum class ObserverRequest : std::uint32_t {
  kNone = 0,
  kCrash = 1,  ///< the emergency record is complete
  kHang = 2,   ///< the user interface thread does not respond; capture its stack
};

/// The whole block, little-endian. Both processes are of the same build.
struct CollectorBlock {
  std::array<char, 4> magic{'C', 'D', 'V', 'Q'};
  std::uint32_t size = 9536;
  std::uint32_t pid = 0;            ///< of the observed process
  std::uint32_t exit_recorded = 0;  ///< 1 once the process has declared its exit code
  std::uint32_t exit_code = 0;      ///< the declared code; written before exit_recorded
  std::uint32_t request = 0;        ///< an ObserverRequest; the observer resets it to none
  std::uint32_t ui_thread_id = 0;   ///< the thread that a hang capture walks
  std::uint32_t reserved = 0;
  std::uint64_t last_heartbeat_tick = 0;  ///< ms since the system's start
  std::uint64_t start_tick = 0;           ///< ms since the system's start
  std::uint64_t process_identity = 0;     ///< creation time from GetProcessTimes, 100 ns units
  std::array<char16_t, kSessionDirectoryUnitsMax + 1>
      session_directory{};  ///< UTF-16; the last unit stays 0
  std::uint64_t reserved_after_directory = 0;
  EmergencyRecord emergency;
  std::array<std::byte, 16> reserved_at_end{};
};

static_assert(offsetof(CollectorBlock, magic) == 0);
static_assert(offsetof(CollectorBlock, size) == 4);
static_assert(offsetof(CollectorBlock, pid) == 8);
static_assert(offsetof(CollectorBlock, exit_recorded) == 12);
static_assert(offsetof(CollectorBlock, exit_code) == 16);
static_assert(offsetof(CollectorBlock, request) == 20);
static_assert(offsetof(CollectorBlock, ui_thread_id) == 24);
static_assert(offsetof(CollectorBlock, reserved) == 28);
static_assert(offsetof(CollectorBlock, last_heartbeat_tick) == 32);
static_assert(offsetof(CollectorBlock, start_tick) == 40);
static_assert(offsetof(CollectorBlock, process_identity) == 48);
static_assert(offsetof(CollectorBlock, session_directory) == 56);
static_assert(offsetof(CollectorBlock, reserved_after_directory) == 0x2038);
static_assert(offsetof(CollectorBlock, emergency) == 0x2040);
static_assert(offsetof(CollectorBlock, reserved_at_end) == 0x2530);
static_assert(sizeof(CollectorBlock) == 9536 && CollectorBlock().size == 9536);
static_assert(std::is_trivially_copyable_v<CollectorBlock> &&
              std::is_standard_layout_v<CollectorBlock>);

/// True when `block` has this layout and was filled by the process with this id and creation time.
/// A wrong handle and a reused process id fail this check.
[[nodiscard]] bool IsBlockOf(const CollectorBlock& block, std::uint32_t pid,
                             std::uint64_t process_identity);

/// Declares the code that the process is about to end with. The last declared code counts.
void DeclareExit(CollectorBlock& block, std::uint32_t code) noexcept;

/// The declared code; nothing when none was declared.
[[nodiscard]] std::optional<std::uint32_t> DeclaredExit(CollectorBlock& block) noexcept;

/// Publishes a request, and with it the emergency record. Allocates nothing and takes no lock.
void PlaceRequest(CollectorBlock& block, ObserverRequest request) noexcept;

/// Returns the request and resets it to none. Another process can write the block, so the result
/// may have any value.
[[nodiscard]] ObserverRequest TakeRequest(CollectorBlock& block) noexcept;

}  // namespace zul
