#include "tools/rig/programs/program_support_win32.h"

#include <windows.h>

#include <shellapi.h>

#include <cstdlib>

#include "core/text.h"

namespace zul::rig {

Arguments CommandLineArguments() {
  int count = 0;
  wchar_t** const parts = CommandLineToArgvW(GetCommandLineW(), &count);
  Arguments arguments;
  for (int i = 1; i < count; ++i) arguments.push_back(WideToUtf8Lossy(parts[i]));
  LocalFree(static_cast<HLOCAL>(parts));
  return arguments;
}

std::optional<std::string> OptionValue(const Arguments& arguments, std::string_view name) {
  for (const std::string& argument : arguments) {
    if (argument == name) return "";
    if (argument.starts_with(std::string(name) + "=")) return argument.substr(name.size() + 1);
  }
  return std::nullopt;
}

unsigned OptionNumber(const Arguments& arguments, std::string_view name) {
  const std::string digits = OptionValue(arguments, name).value_or("0");
  return static_cast<unsigned>(std::strtoul(digits.c_str(), nullptr, 10));
}

std::wstring Widen(std::string_view text) {
  return Utf8ToWide(text).value_or(std::wstring());
}

void PrintLine(std::string_view line) {
  const std::string text = std::string(line) + "\n";
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written,
            nullptr);
}

}  // namespace zul::rig
