#include "collector/observer.h"

#include <algorithm>
#include <charconv>
#include <cwchar>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>

#include "collector/evidence_record.h"

namespace zul {

namespace {

constexpr int kArgumentCount = 6;
constexpr std::size_t kHandleDigitsMax = 32;

}  // namespace

std::optional<std::array<std::string, 6>> NarrowObserverArguments(int argc,
                                                                  const wchar_t* const* argv) {
  if (argc != kArgumentCount || argv == nullptr) return std::nullopt;
  std::array<std::string, kArgumentCount> narrow = {"qorva_updater", "--observe"};
  for (std::size_t i = 2; i < narrow.size(); ++i) {
    if (argv[i] == nullptr || std::wcslen(argv[i]) > kHandleDigitsMax) return std::nullopt;
    for (const wchar_t c : std::wstring_view(argv[i])) {
      if (c < L'0' || c > L'9') return std::nullopt;
      narrow[i].push_back(static_cast<char>('0' + (c - L'0')));
    }
  }
  return narrow;
}

std::optional<std::array<std::uintptr_t, 4>> ParseObserverArguments(int argc,
                                                                    const char* const* argv) {
  if (argc != kArgumentCount || argv[1] != std::string_view("--observe")) return std::nullopt;
  std::array<std::uintptr_t, 4> handles{};
  for (std::size_t i = 0; i < handles.size(); ++i) {
    const std::string_view text = argv[i + 2];
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, handles[i]);
    if (error != std::errc() || stop != end || handles[i] == 0 ||
        handles[i] == std::numeric_limits<std::uintptr_t>::max()) {
      return std::nullopt;
    }
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
