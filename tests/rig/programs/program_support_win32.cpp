#include "tests/rig/programs/program_support_win32.h"

#include <windows.h>

#include <shellapi.h>

#include <charconv>

#include "core/text.h"

namespace zul::rig {

namespace {

void Write(DWORD handle, std::string text) {
  text += '\n';
  DWORD written = 0;
  WriteFile(GetStdHandle(handle), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

}  // namespace

bool Options::TakeFlag(std::string_view name) {
  return std::erase(arguments_, name) > 0;
}

std::optional<std::string> Options::TakeValue(std::string_view name) {
  const std::string joined = std::string(name) + "=";
  for (auto it = arguments_.begin(); it != arguments_.end(); ++it) {
    if (it->starts_with(joined)) {
      std::string value = it->substr(joined.size());
      arguments_.erase(it);
      return value;
    }
    if (*it == name && it + 1 != arguments_.end()) {
      std::string value = *(it + 1);
      arguments_.erase(it, it + 2);
      return value;
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> Options::TakeNumber(std::string_view name) {
  const std::optional<std::string> text = TakeValue(name);
  if (!text.has_value()) return std::nullopt;
  std::uint64_t number = 0;
  const char* const end = text->data() + text->size();
  const auto [stop, problem] = std::from_chars(text->data(), end, number);
  if (problem == std::errc() && stop == end && !text->empty()) return number;
  arguments_.push_back(*text);
  return std::nullopt;
}

std::optional<std::pair<std::string, std::string>> Options::TakePair(std::string_view name) {
  for (auto it = arguments_.begin(); it != arguments_.end(); ++it) {
    if (*it != name || arguments_.end() - it < 3) continue;
    std::pair<std::string, std::string> values(*(it + 1), *(it + 2));
    arguments_.erase(it, it + 3);
    return values;
  }
  return std::nullopt;
}

std::vector<std::string> CommandLineArguments() {
  int count = 0;
  wchar_t** const parts = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; i < count; ++i) arguments.push_back(WideToUtf8Lossy(parts[i]));
  LocalFree(static_cast<HLOCAL>(parts));
  return arguments;
}

std::wstring Widen(std::string_view text) {
  return Utf8ToWide(text).value_or(std::wstring());
}

void PrintLine(std::string_view line) {
  Write(STD_OUTPUT_HANDLE, std::string(line));
}

int Usage(std::string_view text) {
  Write(STD_ERROR_HANDLE, std::string(text));
  return kUsageExit;
}

}  // namespace zul::rig
