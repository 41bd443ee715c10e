#include "tests/support/split_command_line.h"

#include <algorithm>
#include <cstddef>

namespace zul::test {

namespace {

constexpr std::wstring_view kBlanks = L" \t";

bool IsBlank(wchar_t c) {
  return kBlanks.find(c) != std::wstring_view::npos;
}

std::wstring TakeProgram(std::wstring_view& line) {
  const bool quoted = line.starts_with(L'"');
  if (quoted) line.remove_prefix(1);
  const std::size_t end =
      std::min(quoted ? line.find(L'"') : line.find_first_of(kBlanks), line.size());
  std::wstring program(line.substr(0, end));
  line.remove_prefix(std::min(end + 1, line.size()));
  return program;
}

std::wstring TakeArgument(std::wstring_view& line) {
  std::wstring argument;
  bool in_quotes = false;
  std::size_t at = 0;
  while (at < line.size() && (in_quotes || !IsBlank(line[at]))) {
    std::size_t backslashes = 0;
    while (at < line.size() && line[at] == L'\\') ++at, ++backslashes;
    if (at == line.size() || line[at] != L'"') {
      argument.append(backslashes, L'\\');
      if (at < line.size() && (in_quotes || !IsBlank(line[at]))) argument.push_back(line[at++]);
      continue;
    }
    argument.append(backslashes / 2, L'\\');
    const bool doubled = in_quotes && at + 1 < line.size() && line[at + 1] == L'"';
    if (backslashes % 2 == 1) {
      argument.push_back(L'"');
    } else if (doubled) {
      argument.push_back(L'"');
      in_quotes = false;
      ++at;
    } else {
      in_quotes = !in_quotes;
    }
    ++at;
  }
  line.remove_prefix(at);
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
