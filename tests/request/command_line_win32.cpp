// Our reading of the splitting rules, which the fuzzer relies on, against the system itself.
#include <windows.h>

#include <gtest/gtest.h>
#include <shellapi.h>

#include <cstdint>

#include "core/text.h"
#include "request/update_request.h"
#include "tests/support/split_command_line.h"

namespace zul {
namespace {

std::vector<std::wstring> SystemSplit(const std::wstring& line) {
  int count = 0;
  wchar_t** arguments = ::CommandLineToArgvW(line.c_str(), &count);
  std::vector<std::wstring> result(arguments, arguments + count);
  ::LocalFree(arguments);
  return result;
}

// Texts of the characters that mean something to the splitting, the same in every run.
std::wstring NextText(std::uint32_t& state) {
  constexpr std::wstring_view kAlphabet = L"\\\\\"\" \ta=\u017D\n";
  std::wstring text;
  for (;;) {
    state = state * 1664525 + 1013904223;
    const std::size_t choice = (state >> 16) % (kAlphabet.size() + 1);
    if (choice == kAlphabet.size()) return text;
    text.push_back(kAlphabet[choice]);
  }
}

TEST(HelperCommandLineOnWindows, TheSystemSplitsAnyTextAsTheOracleDoes) {
  std::uint32_t state = 1;
  for (int i = 0; i < 5000; ++i) {
    const std::vector<std::wstring> arguments = {L"C:\\temp dir\\a.exe", NextText(state),
                                                 NextText(state)};
    const std::wstring raw = L"a " + arguments[1] + arguments[2];
    ASSERT_EQ(SystemSplit(raw), test::SplitCommandLine(raw)) << WideToUtf8Lossy(raw);
    std::wstring quoted;
    for (const std::wstring& argument : arguments) quoted += QuoteCommandArgument(argument) + L" ";
    ASSERT_EQ(SystemSplit(quoted), arguments) << WideToUtf8Lossy(quoted);
  }
}

}  // namespace
}  // namespace zul
