// The rendered command line and our reading of the splitting rules, against the system itself.
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

TEST(HelperCommandLineOnWindows, TheSystemGivesTheRequestBack) {
  UpdateRequest request;
  request.pid = 4294967295;
  request.download_url = "https://dist.qorva.example/p.zip?a=b&c=%20";
  request.fallback_download_url = "https://mirror1.qorva.example/a b";
  request.sha256 = " " + std::string(64, 'F') + "\t";
  request.target_dir = "C:\\Program Files\\Žluť \xF0\x9F\x96\xA8\\";
  request.restart_exe = "\\\\server\\share name\\\\";
  request.restart_args = "a \"b\" \\\"c\\\\\" d\\\\\\";
  request.headless_restart_version_proof = true;
  request.required_payload_files = {"qorva.exe", "data/ä b.bin", "qorva.exe",
                                    "\"",        "\\\\\"",       "a\\"};
  request.require_signed_payload_binaries = true;
  for (const UpdateRequest& sample : {UpdateRequest{}, request}) {
    std::vector<const wchar_t*> argv;
    const std::vector<std::wstring> arguments =
        SystemSplit(RenderHelperCommandLine(L"C:\\temp dir\\zul_updater.exe", sample));
    for (const std::wstring& argument : arguments) argv.push_back(argument.c_str());
    EXPECT_EQ(ParseUpdateRequest(static_cast<int>(argv.size()), argv.data()), sample);
  }
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
    ASSERT_EQ(test::SplitCommandLine(quoted), arguments) << WideToUtf8Lossy(quoted);
  }
}

}  // namespace
}  // namespace zul
