#pragma once

// Whether a process that a record names still runs. Process ids are used again, so a process is
// known by its id together with the time of its creation.

#include <cstdint>
#include <optional>
#include <string>

namespace zul {

/// One process for good, as records name it.
struct ProcessKey {
  std::uint64_t pid = 0;  ///< as the record has it; no process has an id of 0 or above 32 bits
  std::string identity;   ///< its creation time in decimal; empty when not known
};

/// What the system says about a process id.
struct ProcessFacts {
  enum class Opened { kYes, kDenied, kNo };
  Opened opened = Opened::kNo;
  bool running = false;                        ///< known only when opened
  std::optional<std::uint64_t> creation_time;  ///< Windows: 100 ns units as GetProcessTimes has it
};

/// Asks the system. Does not block.
[[nodiscard]] ProcessFacts QueryProcess(std::uint32_t pid);

/// True when `facts` are those of the process itself and it has not ended. One that may not be
/// opened counts as alive; one of the same id and another creation time is not the one meant.
[[nodiscard]] bool IsSameLivingProcess(const ProcessKey& key, const ProcessFacts& facts);

/// The two together.
[[nodiscard]] bool IsProcessAlive(const ProcessKey& key);

}  // namespace zul
