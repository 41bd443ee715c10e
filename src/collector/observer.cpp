#include "collector/observer.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>

#include "collector/evidence_record.h"

namespace zul {

namespace {

constexpr int kArgumentCount = 6;
constexpr std::size_t kFirstHandle = 2;
constexpr std::size_t kHandleDigitsMax = 32;

std::optional<std::uintptr_t> ParseHandle(std::wstring_view text) {
  std::string digits;
  for (const wchar_t c : text) {
    if (c < L'0' || c > L'9') return std::nullopt;
    digits.push_back(static_cast<char>('0' + (c - L'0')));
  }
  std::uintptr_t handle = 0;
  const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), handle);
  if (digits.size() > kHandleDigitsMax || error != std::errc() || handle == 0 ||
      handle == std::numeric_limits<std::uintptr_t>::max()) {
    return std::nullopt;
  }
  return handle;
}

}  // namespace

std::optional<std::array<std::uintptr_t, 4>> ParseObserverArguments(int argc,
                                                                    const wchar_t* const* argv) {
  if (argc != kArgumentCount || argv == nullptr) return std::nullopt;
  std::array<std::uintptr_t, 4> handles{};
  for (std::size_t i = 0; i < handles.size(); ++i) {
    const wchar_t* const text = argv[kFirstHandle + i];
    const auto handle = text != nullptr ? ParseHandle(text) : std::nullopt;
    if (!handle) return std::nullopt;
    handles[i] = *handle;
  }
  return handles;
}

bool IsOfThisBuild(const nlohmann::json& metadata) {
  const nlohmann::json own = BuildBaseRecord({}, 0);
  constexpr const char* kBuildKeys[] = {"build_id", "version", "channel", "platform", "arch"};
  return std::all_of(std::begin(kBuildKeys), std::end(kBuildKeys), [&](const char* key) {
    const auto value = metadata.find(key);
    return value != metadata.end() && *value == own.at(key);
  });
}

}  // namespace zul
