#include "collector/process_life.h"

namespace zul {

namespace {

constexpr std::uint64_t kPidMax = 0xFFFFFFFE;

}  // namespace

bool IsSameLivingProcess(const ProcessKey& key, const ProcessFacts& facts) {
  if (facts.opened == ProcessFacts::Opened::kDenied) return true;
  if (facts.opened == ProcessFacts::Opened::kNo || !facts.running) return false;
  return !facts.creation_time || key.identity.empty() ||
         key.identity == std::to_string(*facts.creation_time);
}

bool IsProcessAlive(const ProcessKey& key) {
  if (key.pid < 1 || key.pid > kPidMax) return false;
  return IsSameLivingProcess(key, QueryProcess(static_cast<std::uint32_t>(key.pid)));
}

}  // namespace zul
