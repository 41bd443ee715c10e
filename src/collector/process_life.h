#pragma once

// Whether a process that a record names still runs. Process ids are reused, so a record names a
// process by its id and its creation time.

#include <cstdint>
#include <optional>
#include <string>

namespace zul {

/// One process, as records name it.
struct ProcessKey {
  std::uint64_t pid = 0;  ///< as in the record; no process has the id 0 or one above 32 bits
  std::string identity;   ///< its creation time in decimal; empty when unknown
};

/// What the system reports about a process id.
struct ProcessFacts {
  enum class Opened { kYes, kDenied, kNo };
  Opened opened = Opened::kNo;
  bool running = false;  ///< known only when opened
  /// Windows: 100 ns units since 1601, from GetProcessTimes. Linux: clock ticks since the start of
  /// the system, from /proc.
  std::optional<std::uint64_t> creation_time;
};

/// Queries the system. Does not block.
[[nodiscard]] ProcessFacts QueryProcess(std::uint32_t pid);

/// True when `facts` describe the process that `key` names and it has not ended. A process that
/// this user may not open counts as running. One with another creation time is a different process
/// with a reused id.
[[nodiscard]] inline bool IsSameLivingProcess(const ProcessKey& key, const ProcessFacts& facts) {
  if (facts.opened == ProcessFacts::Opened::kDenied) return true;
  if (facts.opened == ProcessFacts::Opened::kNo || !facts.running) return false;
  return !facts.creation_time || key.identity.empty() ||
         key.identity == std::to_string(*facts.creation_time);
}

/// Queries the system for the process that `key` names; true when it has not ended.
[[nodiscard]] inline bool IsProcessAlive(const ProcessKey& key) {
  constexpr std::uint64_t kPidMax = 0xFFFFFFFE;
  if (key.pid < 1 || key.pid > kPidMax) return false;
  return IsSameLivingProcess(key, QueryProcess(static_cast<std::uint32_t>(key.pid)));
}

}  // namespace zul
