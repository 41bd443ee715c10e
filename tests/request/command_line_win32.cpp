// Compares the quoting of a command line with the system's splitting.
#include <windows.h>

#include <gtest/gtest.h>
#include <shellapi.h>

#include "core/text.h"
#include "request/update_request.h"

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

TEST(RenderHelperCommandLine, IsSplitByTheSystemIntoTheSwitches) {
  for (unsigned number = 1; number < 5000; ++number) {
    UpdateRequest request;
    request.target_dir = WideToUtf8Lossy(TextOfNumber(number));
    request.restart_exe = WideToUtf8Lossy(TextOfNumber(1 + number / 7));
    const std::wstring line = RenderHelperCommandLine("C:\\temp dir\\a.exe", request);
    std::vector<std::wstring> expected = {L"C:\\temp dir\\a.exe"};
    for (const auto& [prefix, value] : ListUpdateSwitches(request)) {
      expected.push_back(*Utf8ToWide(std::string(prefix) + value));
    }
    ASSERT_EQ(SystemSplit(line), expected) << WideToUtf8Lossy(line);
  }
}

}  // namespace
}  // namespace zul
