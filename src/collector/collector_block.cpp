#include "collector/collector_block.h"

#include <atomic>

namespace zul {

namespace {

using SharedField = std::atomic_ref<std::uint32_t>;
// An atomic that uses a lock would use one that the other process does not share.
static_assert(SharedField::is_always_lock_free);

}  // namespace

bool IsBlockOf(const CollectorBlock& block, std::uint32_t pid, std::uint64_t process_identity) {
  constexpr CollectorBlock kSound;
  return block.magic == kSound.magic && block.size == kSound.size &&
         block.session_directory.back() == 0 && block.pid == pid &&
         block.process_identity == process_identity;
}

void DeclareExit(CollectorBlock& block, std::uint32_t code) noexcept {
  SharedField(block.exit_code).exchange(code);
  SharedField(block.exit_recorded).exchange(1);
}

std::optional<std::uint32_t> DeclaredExit(CollectorBlock& block) noexcept {
  if (SharedField(block.exit_recorded).load() == 0) return std::nullopt;
  return SharedField(block.exit_code).load();
}

void PlaceRequest(CollectorBlock& block, ObserverRequest request) noexcept {
  SharedField(block.request).exchange(static_cast<std::uint32_t>(request));
}

ObserverRequest TakeRequest(CollectorBlock& block) noexcept {
  return static_cast<ObserverRequest>(SharedField(block.request).exchange(0));
}

}  // namespace zul
