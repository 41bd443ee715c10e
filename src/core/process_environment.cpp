// What is the same on every system.
#include "core/process_environment.h"

namespace zul {

std::uint64_t UnixTimeMs() {
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(since_1970).count();
  return ms > 0 ? static_cast<std::uint64_t>(ms) : 0;
}

}  // namespace zul
