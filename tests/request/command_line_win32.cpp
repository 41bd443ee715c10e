// The rendered command line and our reading of the splitting rules, against the system itself.
#include <windows.h>

#include <gtest/gtest.h>
#include <shellapi.h>

#include "tests/request/sample_requests.h"
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

TEST(HelperCommandLineOnWindows, TheSystemGivesTheRequestBack) {
  for (const UpdateRequest& request : test::SampleRequests()) {
    const std::wstring line = RenderHelperCommandLine(L"C:\\temp dir\\zul_updater.exe", request);
    int count = 0;
    wchar_t** arguments = ::CommandLineToArgvW(line.c_str(), &count);
    EXPECT_EQ(ParseUpdateRequest(count, arguments), request);
    ::LocalFree(arguments);
    EXPECT_EQ(SystemSplit(line), test::SplitCommandLine(line));
  }
  for (const wchar_t* line : {L"a  \"b c\"d\te", L"\"a b\"c d", L"a \\\\\\\"b \\\\\"c d\"",
                              L"a \"\"", L"a b\\\\ \"c\\\\\"", L"a \"b\\\"\\\\c\" \\d\\"}) {
    EXPECT_EQ(SystemSplit(line), test::SplitCommandLine(line));
  }
}

}  // namespace
}  // namespace zul
