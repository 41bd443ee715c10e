#include "tests/support/split_command_line.h"

#include <algorithm>
#include <cstddef>

namespace zul::test {

namespace {

constexpr std::wstring_view kBlanks = L" \t";

std::wstring TakeProgram(std::wstring_view& line) {
  const bool quoted = line.starts_with(L'"');
  if (quoted) line.remove_prefix(1);
  const std::size_t end = std::min(line.find_first_of(quoted ? L"\"" : kBlanks), line.size());
  std::wstring program(line.substr(0, end));
  line.remove_prefix(std::min(end + 1, line.size()));
  return program;
}

std::wstring TakeArgument(std::wstring_view& line) {
  std::wstring argument;
  bool in_quotes = false;
  std::size_t backslashes = 0;  // directly before the current character
  while (!line.empty() && (in_quotes || kBlanks.find(line.front()) == kBlanks.npos)) {
    const wchar_t c = line.front();
    line.remove_prefix(1);
    if (c != L'"') {
      argument.push_back(c);
      backslashes = c == L'\\' ? backslashes + 1 : 0;
      continue;
    }
    argument.resize(argument.size() - (backslashes + 1) / 2);
    const bool doubled = in_quotes && line.starts_with(L'"');
    if (backslashes % 2 == 1 || doubled) argument.push_back(c);
    if (backslashes % 2 == 0) in_quotes = !in_quotes;
    if (backslashes % 2 == 0 && doubled) line.remove_prefix(1);
    backslashes = 0;
  }
  return argument;
}

}  // namespace

std::vector<std::wstring> SplitCommandLine(std::wstring_view line) {
  std::vector<std::wstring> arguments = {TakeProgram(line)};
  for (;;) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    if (line.empty()) return arguments;
    arguments.push_back(TakeArgument(line));
  }
}

}  // namespace zul::test
