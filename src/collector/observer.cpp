#include "collector/observer.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>

#include "collector/evidence_record.h"

namespace zul {

namespace {

constexpr std::size_t kFirstHandle = 2;
constexpr std::size_t kHandleDigitsMax = 32;

std::optional<std::string> NarrowDigits(const wchar_t* text) {
  if (text == nullptr) return std::nullopt;
  std::string digits;
  for (; *text != L'\0'; ++text) {
    if (*text < L'0' || *text > L'9' || digits.size() == kHandleDigitsMax) return std::nullopt;
    digits.push_back(static_cast<char>('0' + (*text - L'0')));
  }
  return digits;
}

}  // namespace

std::optional<ObserverArguments> NarrowObserverArguments(int argc, const wchar_t* const* argv) {
  ObserverArguments arguments = {"qorva_updater", "--observe"};
  if (argc != static_cast<int>(arguments.size()) || argv == nullptr) return std::nullopt;
  for (std::size_t i = kFirstHandle; i < arguments.size(); ++i) {
    const std::optional<std::string> digits = NarrowDigits(argv[i]);
    if (!digits) return std::nullopt;
    arguments[i] = *digits;
  }
  return arguments;
}

std::optional<std::array<std::uintptr_t, 4>> ParseObserverHandles(
    const ObserverArguments& arguments) {
  if (arguments[1] != "--observe") return std::nullopt;
  std::array<std::uintptr_t, 4> handles{};
  for (std::size_t i = 0; i < handles.size(); ++i) {
    const std::string& text = arguments[kFirstHandle + i];
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), handles[i]);
    if (error != std::errc() || stop != text.data() + text.size() || handles[i] == 0 ||
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
