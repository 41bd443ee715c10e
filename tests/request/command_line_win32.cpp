// Compares SplitCommandLine, which the fuzzer uses, and QuoteCommandArgument with the system.
#include <windows.h>

#include <gtest/gtest.h>
#include <shellapi.h>

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

// Number 0 is empty; the next numbers are all texts of characters that the splitting treats
// specially.
std::wstring TextOfNumber(unsigned number) {
  constexpr std::wstring_view kAlphabet = L"\\\" \ta";
  std::wstring text;
  for (; number != 0; number = (number - 1) / kAlphabet.size()) {
    text.push_back(kAlphabet[(number - 1) % kAlphabet.size()]);
  }
  return text;
}

TEST(QuoteCommandArgument, IsUndoneByTheSystemAndBySplitCommandLine) {
  for (unsigned number = 0; number < 5000; ++number) {
    const std::vector<std::wstring> arguments = {L"C:\\temp dir\\a.exe", TextOfNumber(number),
                                                 TextOfNumber(number / 7)};
    const std::wstring raw = L"a " + arguments[1] + arguments[2];
    ASSERT_EQ(SystemSplit(raw), test::SplitCommandLine(raw)) << WideToUtf8Lossy(raw);
    std::wstring quoted;
    for (const std::wstring& argument : arguments) quoted += QuoteCommandArgument(argument) + L" ";
    ASSERT_EQ(SystemSplit(quoted), arguments) << WideToUtf8Lossy(quoted);
  }
}

}  // namespace
}  // namespace zul
